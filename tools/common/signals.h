#ifndef TOOLS_COMMON_SIGNALS_H
#define TOOLS_COMMON_SIGNALS_H

#include "util/scoped_handles.h"

#include <csignal>
#include <initializer_list>
#include <sys/signalfd.h>

namespace tools {

/// The signals that a program answers, as a descriptor to poll. Made before any thread, so that
/// they reach nobody else. A forked process that reads it takes its own.
class Signals {
public:
    explicit Signals(std::initializer_list<int> numbers);
    ~Signals() { giveBack(); }

    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    int fd() const { return m_fd.get(); }

    /// The next signal, of number 0 when there is none.
    signalfd_siginfo takeInfo() const;
    /// The next signal's number; 0 when there is none.
    int take() const { return static_cast<int>(takeInfo().ssi_signo); }

    /// From now on the signals have their usual effect, as before: another Ctrl-C ends a hanging
    /// process, a child can become a program.
    void giveBack() const { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    void block() const { pthread_sigmask(SIG_BLOCK, &m_set, nullptr); }

private:
    sigset_t m_set;
    sigset_t m_before;
    ScopedFd m_fd;
};

} // namespace tools

#endif
