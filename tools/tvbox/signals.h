#ifndef TVBOX_SIGNALS_H
#define TVBOX_SIGNALS_H

#include <csignal>

namespace tvbox {

/// The signals that are passed on to the command, and SIGCHLD: blocked from here on.
class BlockedSignals {
public:
    BlockedSignals() {
        std::signal(SIGCHLD, SIG_DFL); // whoever ignored it would never learn how a child ended
        sigemptyset(&m_blocked);
        for (const int signal :
             {SIGCHLD, SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, SIGALRM, SIGWINCH})
            sigaddset(&m_blocked, signal);
        sigprocmask(SIG_BLOCK, &m_blocked, &m_before);
    }

    void block() const { sigprocmask(SIG_BLOCK, &m_blocked, nullptr); }
    /// As it was: for a child that becomes a program, and while nothing runs yet.
    void unblock() const { sigprocmask(SIG_SETMASK, &m_before, nullptr); }
    const sigset_t& set() const { return m_blocked; }

private:
    sigset_t m_blocked;
    sigset_t m_before;
};

/// Whether a signal was sent by a process. What the terminal sends (Ctrl-C, a new window size)
/// reaches the command by itself.
inline bool sentByProcess(int code) {
    return code <= 0;
}

} // namespace tvbox

#endif
