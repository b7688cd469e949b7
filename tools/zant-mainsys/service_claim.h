#ifndef MAINSYS_SERVICE_CLAIM_H
#define MAINSYS_SERVICE_CLAIM_H

#include "util/scoped_handles.h"

namespace mainsys {

/// The right to serve the main system's queue, which one process at a time has in an IPC namespace.
/// It ends with the process, however that one dies, and leaves nothing: it is a listening socket
/// without a file.
class ServiceClaim {
public:
    /// Throws a Failure, of ExitServed when another process has the right.
    ServiceClaim();

private:
    ScopedFd m_socket;
};

} // namespace mainsys

#endif
