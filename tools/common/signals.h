#ifndef TOOLS_COMMON_SIGNALS_H
#define TOOLS_COMMON_SIGNALS_H

#include "util/scoped_handles.h"

#include <csignal>
#include <initializer_list>

namespace tools {

/// The signals that a program answers, as a descriptor to poll. Made before any thread, so that
/// they reach nobody else.
class Signals {
public:
    explicit Signals(std::initializer_list<int> numbers);
    ~Signals() { giveBack(); }

    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    int fd() const { return m_fd.get(); }

    /// The next signal's number; 0 when there is none.
    int take();

    /// From now on the signals have their usual effect: another Ctrl-C ends a hanging process.
    void giveBack();

private:
    sigset_t m_set;
    ScopedFd m_fd;
};

} // namespace tools

#endif
