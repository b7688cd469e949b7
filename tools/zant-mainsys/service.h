#ifndef MAINSYS_SERVICE_H
#define MAINSYS_SERVICE_H

#include "common/offer.h"

#include <functional>
#include <stdexcept>
#include <string>

namespace mainsys {

/// Exit codes of the program, beside 0 and tools::usageError.
enum ExitCode { ExitFailed = 1, ExitServed = 3 };

/// Why the main system cannot be there, and what to do.
struct Failure : std::runtime_error {
    Failure(ExitCode code, const std::string& text) : std::runtime_error(text), exitCode(code) {}

    ExitCode exitCode;
};

/// The right to serve the main system's queue, which one process at a time has in an IPC namespace.
/// It ends with the process, however that one dies, and leaves nothing: it is a listening socket
/// without a file. Who connects to it is told how things stand.
class ServiceClaim {
public:
    /// Throws a Failure, of ExitServed when another process has the right.
    ServiceClaim();

    /// Can be read when somebody asks how things stand.
    int fd() const { return m_offer.fd(); }
    void tell(const std::function<std::string()>& state) const { m_offer.answer(state); }

private:
    tools::Offer m_offer;
};

/// Tells who started the program that it is ready, if that one wants to know: "READY=1" to the
/// datagram socket that NOTIFY_SOCKET names, as service managers have it. Why not, or empty.
std::string tellReady();

} // namespace mainsys

#endif
