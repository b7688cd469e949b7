#include "stalls.h"

#include <algorithm>
#include <chrono>

namespace qualify {

Stalls::Stalls() : m_thread([this] { watch(); }) {}

Stalls::~Stalls() {
    m_ends = true;
    m_thread.join();
}

void Stalls::watch() {
    using Now = std::chrono::steady_clock;
    constexpr auto nap = std::chrono::milliseconds(5);
    while (!m_ends) {
        const auto before = Now::now();
        std::this_thread::sleep_for(nap);
        const std::chrono::duration<double, std::milli> late = Now::now() - before - nap;
        m_worst = std::max(m_worst.load(), late.count());
    }
}

} // namespace qualify
