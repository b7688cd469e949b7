#include "signals.h"

#include <csignal>
#include <initializer_list>
#include <sys/signalfd.h>
#include <unistd.h>

namespace uvahost {

namespace {

sigset_t answered() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGTSTP, SIGCONT, SIGWINCH})
        sigaddset(&set, number);
    return set;
}

} // namespace

Signals::Signals() {
    const auto set = answered();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    m_fd = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    if (m_fd < 0)
        giveBack();
}

Signals::~Signals() {
    if (m_fd >= 0)
        close(m_fd);
    giveBack();
}

int Signals::take() {
    signalfd_siginfo info = {};
    return read(m_fd, &info, sizeof info) == sizeof info ? static_cast<int>(info.ssi_signo) : 0;
}

void Signals::giveBack() {
    const auto set = answered();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

} // namespace uvahost
