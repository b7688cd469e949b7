#ifndef TVBOX_SIGNALS_H
#define TVBOX_SIGNALS_H

#include <csignal>

namespace tvbox {

/// Blocks the signals that are passed on to the command, and SIGCHLD, until it goes out of scope.
/// A child that execs calls restore() first.
class BlockedSignals {
public:
    BlockedSignals();
    ~BlockedSignals();
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

    void restore() const;
    void block() const;
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
