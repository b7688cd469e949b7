#include "messaging/queue/queue_io.h"

#include "debug/trace/zant_trace.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace queue_io {

namespace {

constexpr const char* capacityLimitFile = "/proc/sys/fs/mqueue/msg_max";

/// A deadline that has passed: makes the timed calls of a queue that blocks return at once.
constexpr timespec atOnce{};

/// The most messages that the kernel allows in a queue, 0 if it does not tell.
long capacityLimit() {
    const ScopedFd file(::open(capacityLimitFile, O_RDONLY | O_CLOEXEC));
    char text[32] = {};
    if (!file || read(file.get(), text, sizeof text - 1) <= 0)
        return 0;
    return strtol(text, nullptr, 10);
}

int openWithinLimit(const char* name, int oflag, mode_t mode, mq_attr& attr) {
    const int descriptor = mq_open(name, oflag, mode, &attr);
    if (descriptor >= 0 || errno != EINVAL)
        return descriptor;
    const long limit = capacityLimit();
    if (limit < 1 || attr.mq_maxmsg <= limit) {
        errno = EINVAL;
        return -1;
    }
    const long wanted = attr.mq_maxmsg;
    attr.mq_maxmsg = limit;
    const int limited = mq_open(name, oflag, mode, &attr);
    // A name that is none is refused with the same error.
    if (limited >= 0)
        ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_WARNING,
                   "CZantMsgQueue::Open - Queue %s gets room for %ld messages instead of %ld: "
                   "raise the sysctl fs.mqueue.msg_max\n",
                   name, limit, wanted);
    return limited;
}

timespec timeUntil(Clock::time_point deadline) {
    using std::chrono::nanoseconds;
    const nanoseconds left = std::max<nanoseconds>(deadline - Clock::now(), nanoseconds(0));
    return {static_cast<time_t>(left.count() / 1000000000),
            static_cast<long>(left.count() % 1000000000)};
}

std::string limitText(decltype(RLIMIT_MSGQUEUE) resource) {
    rlimit limit{};
    if (getrlimit(resource, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return "unlimited";
    return std::to_string(limit.rlim_cur);
}

} // namespace

std::string adviceOn(int error) {
    switch (error) {
    case EMFILE:
        return "all queues of a user may have " + limitText(RLIMIT_MSGQUEUE) +
               " bytes (RLIMIT_MSGQUEUE, ulimit -q), a process " + limitText(RLIMIT_NOFILE) +
               " descriptors (RLIMIT_NOFILE, ulimit -n): raise the limit, or remove queues in "
               "/dev/mqueue that nobody uses";
    case ENOSPC:
        return "there are as many queues as the sysctl fs.mqueue.queues_max allows: raise it, or "
               "remove queues in /dev/mqueue that nobody uses";
    case EINVAL:
        return "it may be larger than the system allows: raise the sysctl fs.mqueue.msg_max";
    case EACCES:
    case EEXIST:
        return "another user has a queue of that name: remove it from /dev/mqueue";
    case EMSGSIZE:
        return "a queue of that name is of another make: remove it from /dev/mqueue";
    default:
        return "";
    }
}

int open(const char* name, int oflag, mode_t mode, mq_attr& attr) {
    int descriptor = openWithinLimit(name, oflag, mode, attr);
    if (descriptor < 0) {
        const int error = errno;
        if (error == EMFILE)
            ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_WARNING, "CZantMsgQueue::Open - %s: %s\n",
                       name, adviceOn(error).c_str());
        errno = error;
        return -1;
    }
    if (descriptor == 0) {
        descriptor = fcntl(0, F_DUPFD_CLOEXEC, 1);
        close(0);
        if (descriptor < 0)
            return -1;
    }
    mq_getattr(descriptor, &attr);
    return descriptor;
}

Identity identityOf(int handle) {
    struct stat info {};
    if (fstat(handle, &info) != 0)
        return {};
    return {info.st_dev, info.st_ino};
}

bool hasName(int handle) {
    struct stat info {};
    return fstat(handle, &info) == 0 && info.st_nlink > 0;
}

ScopedFd reopen(const std::string& name, const Identity& identity) {
    ScopedFd queue(mq_open(name.c_str(), O_RDONLY | O_NONBLOCK));
    if (!queue || identityOf(queue.get()) == identity)
        return queue;
    errno = ENOENT;
    return ScopedFd();
}

int send(int handle, const ZantMsgBody& body, unsigned prio, const CancellationBlock& block) {
    for (;;) {
        const int result =
            mq_timedsend(handle, reinterpret_cast<const char*>(&body), sizeof body, prio, &atOnce);
        if (result == 0 || (errno != ETIMEDOUT && errno != EINTR))
            return result;
        if (errno == ETIMEDOUT && waitFor(handle, POLLOUT, nullptr, block) < 0)
            return -1;
    }
}

ssize_t receiveAtOnce(int handle, ZantMsgBody& body) {
    ssize_t size = 0;
    do
        size = mq_timedreceive(handle, reinterpret_cast<char*>(&body), sizeof body, nullptr, &atOnce);
    while (size < 0 && errno == EINTR);
    return size;
}

int waitFor(int handle, short events, const Clock::time_point* deadline,
            const CancellationBlock& block) {
    // Unlike select, poll takes any descriptor and leaves nothing to set up again.
    pollfd waiting{handle, events, 0};
    int result = 0;
    do {
        const timespec left = deadline ? timeUntil(*deadline) : timespec{};
        result = block.allowDuring(
            [&] { return ppoll(&waiting, 1, deadline ? &left : nullptr, nullptr); });
    } while (result < 0 && errno == EINTR);
    if (result <= 0)
        return result;
    if (waiting.revents & POLLNVAL) {
        errno = EBADF;
        return -1;
    }
    return (waiting.revents & events) ? 1 : 0;
}

} // namespace queue_io
