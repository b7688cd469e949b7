#ifndef MAINSYS_LINK_PROCESS_H
#define MAINSYS_LINK_PROCESS_H

#include "link_socket.h"

#include <string>
#include <sys/types.h>

namespace mainsys {

/// The process that holds the link, as the program sees it: it can be killed and started anew at
/// any time. Bound to the program's one thread, which must stay the only one: the process is
/// forked.
class LinkProcess {
public:
    LinkProcess() = default;
    ~LinkProcess() { stop(); }
    LinkProcess(const LinkProcess&) = delete;
    LinkProcess& operator=(const LinkProcess&) = delete;

    enum class Start { Up, Served, Failed };
    /// Starts it and waits until its queues are open. Otherwise `whyNot` says why: another main
    /// system serves the queue, or the link could not be opened.
    Start start(std::string& whyNot);
    /// Ends it in order.
    void stop();
    /// Kills it where it stands.
    void crash();

    bool isUp() const { return m_pid > 0; }
    /// Can be read when there is something to take; -1 while it is down.
    int fd() const { return m_socket; }
    /// False when there is nothing; the process may be gone then, see isUp().
    bool take(Passed& passed);
    void send(const Passed& passed);

private:
    void forget();

    pid_t m_pid = -1;
    int m_socket = -1;
};

} // namespace mainsys

#endif
