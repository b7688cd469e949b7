#include "common/signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

namespace tools {

Signals::Signals(std::initializer_list<int> numbers) {
    sigemptyset(&m_set);
    for (const int number : numbers)
        sigaddset(&m_set, number);
    pthread_sigmask(SIG_BLOCK, &m_set, nullptr);
    m_fd = ScopedFd(signalfd(-1, &m_set, SFD_NONBLOCK | SFD_CLOEXEC));
    if (!m_fd)
        giveBack();
}

int Signals::take() {
    signalfd_siginfo info = {};
    const auto size = read(m_fd.get(), &info, sizeof info);
    return size == sizeof info ? static_cast<int>(info.ssi_signo) : 0;
}

void Signals::giveBack() {
    pthread_sigmask(SIG_UNBLOCK, &m_set, nullptr);
}

} // namespace tools
