#include "stalls.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace qualify {

namespace {

/// Milliseconds that each thread of this process has waited on a run queue (proc(5), schedstat).
std::map<int, double> waitsOfThreads() {
    namespace fs = std::filesystem;
    std::map<int, double> waits;
    std::error_code error;
    for (auto it = fs::directory_iterator("/proc/self/task", error);
         !error && it != fs::directory_iterator(); it.increment(error)) {
        std::ifstream stream(it->path() / "schedstat");
        double ran = 0, waited = 0; // nanoseconds
        if (stream >> ran >> waited)
            waits[std::atoi(it->path().filename().c_str())] = waited / 1e6;
    }
    return waits;
}

} // namespace

Stalls::Stalls() : m_thread([this] { watch(); }) {}

Stalls::~Stalls() {
    m_ends = true;
    m_thread.join();
}

void Stalls::restart() {
    m_worst = 0;
    m_before = waitsOfThreads();
}

double Stalls::total() const {
    double longest = 0;
    for (const auto& [thread, waited] : waitsOfThreads()) {
        const auto before = m_before.find(thread);
        longest = std::max(longest, waited - (before == m_before.end() ? 0 : before->second));
    }
    return longest;
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
