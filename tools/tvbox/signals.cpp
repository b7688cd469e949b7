#include "signals.h"

namespace tvbox {

namespace {

constexpr int passedOn[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, SIGALRM, SIGWINCH};

} // namespace

BlockedSignals::BlockedSignals() {
    std::signal(SIGCHLD, SIG_DFL); // whoever ignored it would never learn how a child ended
    sigemptyset(&m_blocked);
    sigaddset(&m_blocked, SIGCHLD);
    for (const int signal : passedOn)
        sigaddset(&m_blocked, signal);
    sigprocmask(SIG_BLOCK, &m_blocked, &m_before);
}

void BlockedSignals::block() const {
    sigprocmask(SIG_BLOCK, &m_blocked, nullptr);
}

BlockedSignals::~BlockedSignals() {
    restore();
}

void BlockedSignals::restore() const {
    sigprocmask(SIG_SETMASK, &m_before, nullptr);
}

} // namespace tvbox
