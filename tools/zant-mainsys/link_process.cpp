#include "link_process.h"

#include "link_worker.h"
#include "service_claim.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace mainsys {

namespace {

constexpr int longestStart = 10000; // milliseconds

[[noreturn]] void beTheLink(int socket) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // A signal to the whole group ends the program, which ends this.
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGTERM, SIG_IGN);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    runLink(socket);
    _exit(0);
}

} // namespace

LinkProcess::Start LinkProcess::start(std::string& whyNot) {
    stop();
    const ServiceClaim claim; // the forked process keeps it
    whyNot = claim.whyNot();
    if (!whyNot.empty())
        return claim.isTaken() ? Start::Served : Start::Failed;
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        whyNot = std::string("cannot make a socket: ") + strerrordesc_np(errno);
        return Start::Failed;
    }
    m_pid = fork();
    if (m_pid == 0) {
        close(ends[0]);
        beTheLink(ends[1]);
    }
    close(ends[1]);
    m_socket = ends[0];
    pollfd answer{m_socket, POLLIN, 0};
    Passed passed;
    const bool answered = m_pid > 0 && poll(&answer, 1, longestStart) == 1 &&
                          takePassed(m_socket, passed) && passed.kind == Passing::Ready;
    if (answered)
        return Start::Up;
    stop();
    whyNot =
        "the queues of the link cannot be opened: see the lines above; the limits of queues may "
        "be too low (run in tvbox)";
    return Start::Failed;
}

void LinkProcess::stop() {
    if (!isUp())
        return;
    close(m_socket); // it ends when it reads that
    m_socket = -1;
    forget();
}

void LinkProcess::crash() {
    if (!isUp())
        return;
    kill(m_pid, SIGKILL);
    forget();
}

void LinkProcess::forget() {
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
    if (m_socket >= 0)
        close(m_socket);
    m_socket = -1;
}

bool LinkProcess::take(Passed& passed) {
    pollfd ready{m_socket, POLLIN, 0};
    if (!isUp() || poll(&ready, 1, 0) != 1)
        return false;
    if (takePassed(m_socket, passed))
        return true;
    forget();
    return false;
}

void LinkProcess::send(const Passed& passed) {
    if (isUp())
        pass(m_socket, passed);
}

} // namespace mainsys
