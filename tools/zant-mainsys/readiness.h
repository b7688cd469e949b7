#ifndef MAINSYS_READINESS_H
#define MAINSYS_READINESS_H

#include <string>

namespace mainsys {

/// Tells who started the program that it is ready, if that one wants to know: "READY=1" to the
/// datagram socket that NOTIFY_SOCKET names, as service managers have it. Why not, or empty.
std::string tellReady();

} // namespace mainsys

#endif
