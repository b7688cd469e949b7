#ifndef COMMON_BOX_REGISTRY_H
#define COMMON_BOX_REGISTRY_H

#include "util/scoped_handles.h"

#include <optional>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tvbox {

/// What was asked for cannot be done: what() says why and what to do next.
class Failure : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// "what: text of errno"
std::string withErrno(const std::string& what, int error = errno);

/// A running box as others see it.
struct BoxInfo {
    std::string name;
    pid_t pid; ///< its first process; /proc/<pid>/root is what it sees, /proc/<pid>/ns where it is
};

/// A name among the boxes of this user who see the same folder for run-time files. It is a socket
/// without a file, free again when the processes that hold it have ended, however they did.
class BoxName {
public:
    /// Throws Failure for a bad name and for one that another box has.
    explicit BoxName(const std::string& name);

    /// Called by the first process of the box: from now on others find it.
    void publish() const;
    /// Readable when somebody looks for the box; they wait for nothing but want to be let go.
    int fd() const { return m_socket.get(); }
    void dismissVisitor() const;

private:
    ScopedFd m_socket;
};

/// The box of that name, none if it does not run.
std::optional<BoxInfo> findBox(const std::string& name);
/// The running boxes, by name.
std::vector<BoxInfo> listBoxes();

/// Moves the process, which must have one thread, into the namespaces of a box; its children belong
/// to the box's process ids. Throws Failure.
void joinBox(const BoxInfo& box);

} // namespace tvbox

#endif
