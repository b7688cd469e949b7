#ifndef UVA_QUALIFY_STOP_SIGNALS_H
#define UVA_QUALIFY_STOP_SIGNALS_H

#include "util/scoped_handles.h"

#include <csignal>

namespace qualify {

/// SIGINT, SIGTERM and SIGHUP, which wait for this process until it looks; one that it was told to
/// ignore stays ignored. Made before there is another thread.
class StopSignals {
public:
    StopSignals();

    /// Readable when one is there.
    int descriptor() const { return m_descriptor.get(); }
    /// The one that came first; 0: none yet.
    int received() const;

    /// For a process that is started: what was blocked before.
    const sigset_t& before() const { return m_before; }

private:
    sigset_t m_before{};
    ScopedFd m_descriptor;
    mutable int m_received = 0;
};

} // namespace qualify

#endif
