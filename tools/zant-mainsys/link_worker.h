#ifndef MAINSYS_LINK_WORKER_H
#define MAINSYS_LINK_WORKER_H

namespace mainsys {

/// The process that holds the main system's end of the link: makes its queue anew, passes what
/// arrives there to the socket, and sends what comes out of the socket. Returns when the other end
/// of the socket is closed.
void runLink(int socket);

} // namespace mainsys

#endif
