#include "common/signals.h"

#include <unistd.h>

namespace tools {

Signals::Signals(std::initializer_list<int> numbers) {
    sigemptyset(&m_set);
    for (const int number : numbers)
        sigaddset(&m_set, number);
    pthread_sigmask(SIG_BLOCK, &m_set, &m_before);
    m_fd = ScopedFd(signalfd(-1, &m_set, SFD_NONBLOCK | SFD_CLOEXEC));
    if (!m_fd)
        giveBack();
}

signalfd_siginfo Signals::takeInfo() const {
    signalfd_siginfo info = {};
    return read(fd(), &info, sizeof info) == sizeof info ? info : signalfd_siginfo{};
}

} // namespace tools
