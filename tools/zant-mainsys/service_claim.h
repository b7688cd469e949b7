#ifndef MAINSYS_SERVICE_CLAIM_H
#define MAINSYS_SERVICE_CLAIM_H

#include <string>

namespace mainsys {

/// The right to serve the main system's queue, which one process at a time has in an IPC namespace.
/// It ends with the last process that has the object, however that one dies, and leaves nothing: it
/// is a listening socket without a file. Not for several threads at a time.
class ServiceClaim {
public:
    ServiceClaim();
    ~ServiceClaim();
    ServiceClaim(const ServiceClaim&) = delete;
    ServiceClaim& operator=(const ServiceClaim&) = delete;

    /// Another process has it.
    bool isTaken() const { return m_taken; }
    /// Who has it and what to do, or why nobody can tell; empty if it is ours.
    const std::string& whyNot() const { return m_whyNot; }

private:
    int m_socket = -1;
    bool m_taken = false;
    std::string m_whyNot;
};

} // namespace mainsys

#endif
