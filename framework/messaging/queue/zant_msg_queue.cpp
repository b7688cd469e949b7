#include "messaging/queue/zant_msg_queue.h"

#include "debug/trace/zant_trace.h"
#include "messaging/queue/signal_ids.h"
#include "messaging/queue/zant_msg.h"
#include "messaging/queue/zant_msg_body.h"
#include "util/cancellation_block.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr long msgSize = sizeof(ZantMsgBody);

void warnOfSizelessBuffer(const CZantMsg& msg) {
    if (msg.signalPtr && msg.signalSize == 0)
        ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_WARNING,
                   "Signal pointer is set, but signalSize is 0\n");
}

/// True when the handle can be sent to. Answers one that can not: frees the payloads and traces.
bool acceptHandle(int handle, CZantMsg& msg) {
    if (handle != -1 && handle != 0)
        return true;
    msg.FreeSignal();
    ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_ERROR,
               handle == 0 ? "Handle is 0\n" : "Handle is undefined\n");
    return false;
}

/// A payload of this process means nothing to a reader who expects shared addresses.
bool hasPayload(const CZantMsg& msg) {
    return msg.signalPtr || msg.signalObj;
}

/// Sends the body; the payloads change owner on success. False, with errno, on failure.
bool sendPacked(int handle, CZantMsg& msg, unsigned prio, const CancellationBlock& block) {
    PackedMsg packed(msg);
    if (!packed.isComplete()) {
        errno = ENOBUFS;
        return false;
    }
    if (queue_io::send(handle, packed.body(), prio, block) != 0)
        return false;
    packed.sent();
    return true;
}

} // namespace

CZantMsgQueue::~CZantMsgQueue() {
    const CancellationBlock block;
    part();
    forget();
}

bool CZantMsgQueue::isOpen() const {
    const State state = m_state;
    return state == State::open || state == State::nameless;
}

/// Parts from the queue that there is, if any, the way its opener chose.
void CZantMsgQueue::part() {
    if (!isOpen() && m_state != State::closed)
        return;
    if (unlinkOnDestroy)
        Unlink();
    else if (isOpen())
        Close();
}

int32_t CZantMsgQueue::Open(const char* queueName, int oflag, int mode, int maxMsgs,
                            bool unlinkFirst) {
    mq_attr wanted{};
    wanted.mq_maxmsg = maxMsgs;
    return OpenWithAttrStruct(queueName, oflag, mode, &wanted, unlinkFirst);
}

int32_t CZantMsgQueue::OpenWithAttrStruct(const char* queueName, int oflag, int mode,
                                          mq_attr* wanted, bool unlinkFirst) {
    const CancellationBlock block;
    ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_INFO, "CZantMsgQueue::Open: %s\n",
               queueName ? queueName : "(null)");
    // What was closed waits for whoever opens its name again, this object too.
    if (isOpen() || unlinkFirst || !queueName || name != queueName)
        part();
    m_state = State::none;
    handle = -1;
    if (!queueName || !wanted)
        return failOpen(EINVAL);
    wanted->mq_msgsize = msgSize;
    attr = *wanted;
    return openDescriptor(queueName, oflag, mode, unlinkFirst);
}

int32_t CZantMsgQueue::openDescriptor(const char* queueName, int oflag, int mode,
                                      bool unlinkFirst) {
    unlinkOnDestroy = unlinkFirst;
    if (unlinkFirst) {
        mq_unlink(queueName);
        oflag |= O_EXCL;
    }
    {
        const MutexLock lock(m_zantMsgQueueMutex);
        name = queueName;
    }
    maxUsed = 0;

    const auto open = [&] {
        return queue_io::open(queueName, oflag, static_cast<mode_t>(mode), attr);
    };
    int descriptor = open();
    // Made by another just now, who may have taken the name away by now: not to be shared.
    while (descriptor < 0 && unlinkFirst && errno == EEXIST &&
           (mq_unlink(queueName) == 0 || errno == ENOENT))
        descriptor = open();
    if (descriptor < 0)
        return failOpen(errno);
    if (attr.mq_msgsize != msgSize) {
        ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_ERROR,
                   "CZantMsgQueue::Open - Queue %s exists with messages of %ld bytes instead of "
                   "%ld: remove it (mq_unlink) or choose another name\n",
                   queueName, static_cast<long>(attr.mq_msgsize), msgSize);
        mq_close(descriptor);
        return failOpen(EMSGSIZE);
    }
    handle = descriptor;
    m_identity = queue_io::identityOf(descriptor);
    m_opener = getpid();
    m_openError = 0;
    m_state = State::open;
    AddQueueToGlobalMsgQueueList(this, descriptor);
    return 0;
}

int32_t CZantMsgQueue::failOpen(int error) {
    m_openError = error;
    ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_ERROR,
               "CZantMsgQueue::Open queue FAILED - errno = %d\n", error);
    return openFailed;
}

int32_t CZantMsgQueue::Close() {
    const CancellationBlock block;
    State before = m_state;
    if (before == State::none) {
        ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_ERROR,
                   "CZantMsgQueue::Close queue FAILED - No handle given\n");
        return nothingToClose;
    }
    const State after = before == State::open ? State::closed : State::parted;
    if (!isOpen() || !m_state.compare_exchange_strong(before, after))
        return closeFailed;
    // Leaves the registry first: once it is closed the number may be another queue's.
    RemoveQueueFromGlobalMsgQueueList(this, handle);
    // Nobody else comes by what waits in a queue of one's own without a name; a child process has
    // only a copy of the descriptor.
    const bool isLost = after == State::parted || (unlinkOnDestroy && !queue_io::hasName(handle));
    if (isLost && m_opener == getpid() && !isShared())
        drain(handle);
    return mq_close(handle) == 0 ? 0 : closeFailed;
}

int32_t CZantMsgQueue::Getattr(mq_attr* result) {
    if (m_state == State::none)
        return getattrNotOpen;
    errno = EBADF;
    if (result && isOpen() && mq_getattr(handle, result) == 0) {
        attr = *result;
        return 0;
    }
    ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_ERROR,
               "CZantMsgQueue::Getattr FAILED - errno = %d\n", result ? errno : EINVAL);
    return getattrFailed;
}

int32_t CZantMsgQueue::GetNrOfMsgsInQueue() {
    if (m_state == State::none)
        return countNotOpen;
    mq_attr now{};
    errno = EBADF;
    const int result = isOpen() ? mq_getattr(handle, &now) : -1;
    if (result == 0)
        return static_cast<int32_t>(now.mq_curmsgs);
    ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_ERROR,
               "CZantMsgQueue::GetNrOfMsgsInQueue failed - return value: %d\t errno=%d\n", result,
               errno);
    return countFailed;
}

void CZantMsgQueue::DropName() {
    const CancellationBlock block;
    State before = State::open;
    if (m_state.compare_exchange_strong(before, State::nameless) && queue_io::hasName(handle))
        mq_unlink(name.c_str());
}

int32_t CZantMsgQueue::Unlink() {
    if (name.empty())
        return noName;
    const CancellationBlock block;
    const int error = isOpen() ? unlinkOpen() : unlinkClosed();
    if (error == 0)
        return 0;
    ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_ERROR, "CZantMsgQueue::Unlink FAILED - Errno = %d\n",
               error);
    errno = error;
    return unlinkFailed;
}

/// 0, or why no name was removed, as errno.
int CZantMsgQueue::unlinkOpen() {
    const bool gaveUpName = m_state == State::nameless;
    const bool hasName = queue_io::hasName(handle);
    drain(handle);
    Close();
    m_state = State::parted;
    if (gaveUpName)
        return 0;
    if (!hasName)
        return ENOENT;
    return mq_unlink(name.c_str()) == 0 ? 0 : errno;
}

/// The same of a queue that Close left to its name, and of a name that could not be opened.
int CZantMsgQueue::unlinkClosed() {
    if (m_state == State::parted)
        return ENOENT;
    if (m_state == State::closed) {
        const ScopedFd queue = queue_io::reopen(name, m_identity);
        if (!queue && errno == ENOENT)
            return ENOENT;
        // Without the right to read, or a descriptor to spare, the name can go all the same.
        m_state = State::parted;
        if (queue)
            drain(queue.get());
    }
    return mq_unlink(name.c_str()) == 0 ? 0 : errno;
}

int32_t CZantMsgQueue::ClearQueue() {
    if (m_state == State::none)
        return notOpen;
    const CancellationBlock block;
    if (isOpen())
        drain(handle);
    return 0;
}

void CZantMsgQueue::drain(int descriptor) const {
    ZantMsgBody body{};
    ssize_t size = 0;
    while ((size = queue_io::receiveAtOnce(descriptor, body)) >= 1) {
        ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_INFO,
                   "CZantMsgQueue::ClearQueue - Msg read from queue - size: %d  errno=%d\n",
                   static_cast<int>(size), errno);
        if (size == msgSize)
            discard(body, m_freeShared);
    }
}

void CZantMsgQueue::discard(const ZantMsgBody& body, FreeShared freeShared) {
    CZantMsg scratch; // frees what it is given
    if (!freeShared)
        unpackMsg(body, scratch);
    else if (body.signalPtr != 0)
        freeShared(body.signalPtr);
}

void CZantMsgQueue::DropPayload(CZantMsg& msg) const {
    msg.FreeSignal();
    const FreeShared freeShared = m_freeShared;
    if (freeShared && msg.sharedAddress != 0)
        freeShared(msg.sharedAddress);
    msg.sharedAddress = 0;
}

bool CZantMsgQueue::TrySend(CZantMsg& msg, unsigned prio) {
    const CancellationBlock block;
    return trySend(msg, prio, block);
}

bool CZantMsgQueue::trySend(CZantMsg& msg, unsigned prio, const CancellationBlock& block) {
    const bool mayCarry = !CarriesSharedAddresses() || !hasPayload(msg);
    errno = mayCarry ? EBADF : EINVAL;
    if (!isOpen() || !mayCarry || !sendPacked(handle, msg, prio, block))
        return false;
    totalNrOfSentMsgs.fetch_add(1, std::memory_order_relaxed);
    return true;
}

int32_t CZantMsgQueue::Send(CZantMsg* msg, unsigned prio) {
    const CancellationBlock block;
    if (!msg) {
        ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_ERROR,
                   "CZantMsgQueue::Send (obj) - argMsgObjPtr is 0\n");
        return noMessage;
    }
    if (!acceptHandle(handle, *msg))
        return handle == 0 ? handleIsZero : sendNotOpen;
    warnOfSizelessBuffer(*msg);
    if (msg->signalId == SIG_ID_NULL)
        ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_WARNING,
                   "CZantMsgQueue::Send (obj) - Signal name = 0 Thread-Id = %ld\n",
                   static_cast<long>(gettid()));

    if (trySend(*msg, prio, block))
        return 0;
    const int error = errno;
    msg->FreeSignal();
    if (sendErrorsSuppressed)
        return 0;
    ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_ERROR,
               "CZantMsgQueue::Send (obj) FAILED - handle=%d rc2=%d errno=%d signal=%d %s\n",
               handle.load(), -1, error, static_cast<int>(msg->signalId), msg->signalName());
    return sendFailed;
}

int32_t CZantMsgQueue::Send(int handle, CZantMsg* msg, unsigned prio) {
    const CancellationBlock block;
    if (!msg) {
        ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_ERROR,
                   "CZantMsgQueue::Send (obj to handle) - argMsgObjPtr = 0\n");
        return noMessage;
    }
    if (!acceptHandle(handle, *msg))
        return handle == 0 ? handleIsZero : sendToNoHandle;
    warnOfSizelessBuffer(*msg);

    const bool mayCarry = !hasPayload(*msg) || !freeSharedOf(handle);
    errno = EINVAL;
    if (mayCarry && sendPacked(handle, *msg, prio, block)) {
        totalNrOfSentMsgs.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }
    const int error = errno;
    msg->FreeSignal();
    const SendErrors errors = sendErrorsOf(handle);
    if (errors == SendErrors::suppressed)
        return 0;
    if (errors == SendErrors::traced)
        ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_ERROR,
                   "CZantMsgQueue::Send (obj to handle) to queue FAILED (obj to handle) - "
                   "handle=%d rc=%d errno=%d signal=%d %s\n",
                   handle, -1, error, static_cast<int>(msg->signalId), msg->signalName());
    return sendFailed;
}

int32_t CZantMsgQueue::checkReceive(const CZantMsg* msg) {
    sendErrorsSuppressed = false;
    if (m_state == State::none)
        return notOpen;
    return msg ? 0 : noMessage;
}

int32_t CZantMsgQueue::Receive(CZantMsg* msg, unsigned) {
    const CancellationBlock block;
    if (const int32_t refused = checkReceive(msg))
        return refused;
    int32_t result = receiveNow(*msg);
    // Where the queue's mode says to wait, only the wait may be cancelled: a message that was read
    // is never lost on the way.
    while (result == receiveFailed && errno == ETIMEDOUT) {
        if (queue_io::waitFor(handle, POLLIN, nullptr, block) < 0)
            return receiveFailed;
        result = receiveNow(*msg);
    }
    return result;
}

int32_t CZantMsgQueue::ReceiveFromNonblockingQueue(CZantMsg* msg, unsigned) {
    if (const int32_t refused = checkReceive(msg))
        return refused;
    if (const int32_t failed = WaitForMsg())
        return failed;
    return Receive(msg, 0);
}

int32_t CZantMsgQueue::WaitForMsg() {
    if (m_state == State::none)
        return notOpen;
    const CancellationBlock block;
    errno = EBADF;
    const int ready = isOpen() ? queue_io::waitFor(handle, POLLIN, nullptr, block) : -1;
    if (ready < 0) {
        ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_ERROR,
                   "CZantMsgQueue::ReceiveFromNonblockingQueue - select failed - handle=%d "
                   "rc_select: %d errno=%d\n",
                   handle.load(), ready, errno);
        return waitFailed;
    }
    if (ready == 0) {
        ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_WARNING, "select, but not our queue\n");
        return wokenForNothing;
    }
    return 0;
}

int CZantMsgQueue::usleepOnQueue(unsigned long usec) {
    const CancellationBlock block;
    if (!isOpen()) {
        errno = EBADF;
        return -1;
    }
    constexpr std::chrono::microseconds longest = std::chrono::hours(24 * 365); // the clock's room
    const auto wanted = std::min<uint64_t>(usec, static_cast<uint64_t>(longest.count()));
    const auto deadline = queue_io::Clock::now() + std::chrono::microseconds(wanted);
    return queue_io::waitFor(handle, POLLIN, &deadline, block);
}

int32_t CZantMsgQueue::receiveNow(CZantMsg& msg) {
    ZantMsgBody body{};
    errno = EBADF;
    const ssize_t size = isOpen() ? queue_io::receiveAtOnce(handle, body) : -1;
    if (size < 1)
        return receiveFailed;
    if (size != msgSize) {
        ZANT_TRACE(
            TRACEUNIT_MSG_QUEUE, TRACELEVEL_ERROR,
            "CZantMsgQueue::Receive - Message of %d bytes instead of %ld dropped: the sender "
            "does not speak this protocol - handle=%d\n",
            static_cast<int>(size), msgSize, handle.load());
        errno = EBADMSG;
        return receiveFailed;
    }
    if (CarriesSharedAddresses())
        unpackFromOtherProcess(body, msg);
    else
        unpackMsg(body, msg);
    countReceived(body.signalId);
    return 0;
}

void CZantMsgQueue::countReceived(uint32_t signal) {
    nrRead.fetch_add(1, std::memory_order_relaxed);
    lastSignal.store(signal, std::memory_order_relaxed);
    mq_attr now{};
    if (mq_getattr(handle, &now) != 0)
        return;
    const auto used = static_cast<int32_t>(now.mq_curmsgs) + 1;
    if (used > maxUsed.load(std::memory_order_relaxed))
        maxUsed.store(used, std::memory_order_relaxed);
}

bool QueueTypeIsBlocking(int handle) {
    mq_attr attr{};
    if (mq_getattr(handle, &attr) == 0)
        return (attr.mq_flags & O_NONBLOCK) == 0;
    ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_ERROR,
               "Error getting attributes for queue handle %d\n", handle);
    return true;
}
