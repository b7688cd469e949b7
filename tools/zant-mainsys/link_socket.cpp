#include "link_socket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>

namespace mainsys {

namespace {

struct Head {
    Passing kind;
    uint32_t count;
    int64_t nanoseconds;
    ZantMsgBody body;
};

} // namespace

bool pass(int socket, const Passed& passed) {
    const auto since = passed.signal.time.time_since_epoch();
    Head head{passed.kind, passed.count, std::chrono::nanoseconds(since).count(),
              passed.signal.body};
    std::string payload = passed.signal.payload.substr(0, longestPassed);
    iovec parts[] = {{&head, sizeof head}, {payload.data(), payload.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    ssize_t sent = -1;
    do {
        sent = sendmsg(socket, &message, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent >= 0;
}

bool takePassed(int socket, Passed& passed) {
    Head head{};
    std::string payload(longestPassed, '\0');
    iovec parts[] = {{&head, sizeof head}, {payload.data(), payload.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    ssize_t received = -1;
    do {
        received = recvmsg(socket, &message, 0);
    } while (received < 0 && errno == EINTR);
    if (received < static_cast<ssize_t>(sizeof head))
        return false;
    payload.resize(static_cast<size_t>(received) - sizeof head);
    passed.kind = head.kind;
    passed.count = head.count;
    passed.signal.time = Clock::time_point(std::chrono::nanoseconds(head.nanoseconds));
    passed.signal.body = head.body;
    passed.signal.payload = std::move(payload);
    return true;
}

} // namespace mainsys
