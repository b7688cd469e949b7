#include "messaging/queue_thread/thread_object_with_queue.h"

#include "debug/trace/zant_trace.h"
#include "messaging/queue/zant_msg.h"
#include "util/cancellation_block.h"
#include "util/thrown_by.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr useconds_t pauseWithoutQueue = 20000;

/// What a stop carries that met no run at all; 0 is the stop of a sender who knows of no runs.
constexpr int32_t noRun = -1;

} // namespace

CThreadObjectWithQueue::~CThreadObjectWithQueue() {
    const CancellationBlock block;
    CThreadObjectWithQueue::StopThreadAndWait();
}

int32_t CThreadObjectWithQueue::Init(const char* prefix, int capacity, int mode,
                                     bool nameIsComplete, bool unlinkFirst) {
    initialised = false;
    queueName = prefix ? prefix : "";
    if (!nameIsComplete)
        queueName += std::to_string(reinterpret_cast<intptr_t>(this));
    maxMsgs = capacity;
    ZANT_TRACE(TRACEUNIT_QUEUE_THREAD, TRACELEVEL_INFO, "CThreadObjectWithQueue:: Queuename = %s\n",
               queueName.c_str());

    const int32_t result =
        m_queue.Open(queueName.c_str(), O_RDWR | O_CREAT | O_NONBLOCK, mode, maxMsgs, unlinkFirst);
    if (result != 0) {
        ZANT_TRACE(TRACEUNIT_QUEUE_THREAD, TRACELEVEL_WARNING,
                   "CThreadObjectWithQueue::Init() FAILED - %d - %s\n", result, queueName.c_str());
        return result;
    }
    // A name of its own is for nobody to open: the queue is reached by its handle.
    if (!nameIsComplete)
        m_queue.DropName();
    initialised = true;
    ZANT_TRACE(TRACEUNIT_QUEUE_THREAD, TRACELEVEL_INFO,
               "CThreadObjectWithQueue::Init() - %d - %s\n", m_queue.handle.load(),
               queueName.c_str());
    return 0;
}

int32_t CThreadObjectWithQueue::StartThread(const char* threadName, int stackSize, int priority) {
    if (!initialised) {
        ZANT_TRACE(TRACEUNIT_QUEUE_THREAD, TRACELEVEL_ERROR,
                   "CThreadObjectWithQueue::StartThread() Thread not started, as object is not "
                   "initialized - Name: %s\n",
                   threadName ? threadName : "");
        return startBeforeInit;
    }
    m_lacksThread = CThreadObject::StartThread(threadName, stackSize, priority) != 0;
    return 0;
}

int32_t CThreadObjectWithQueue::SendCmd(CZantMsg* msg) {
    if (!initialised && msg) {
        const bool isStop = msg->signalId == SIG_ID_STOP_THREAD;
        msg->FreeSignal();
        if (isStop)
            return 0;
        ZANT_TRACE(TRACEUNIT_QUEUE_THREAD, TRACELEVEL_ERROR,
                   "CThreadObjectWithQueue::SendCmd when not initialized - Calling thread id = "
                   "0x%lx\n",
                   static_cast<unsigned long>(pthread_self()));
        return sendBeforeInit;
    }
    const int32_t result = m_queue.Send(msg, 0);
    ZANT_TRACE(TRACEUNIT_QUEUE_THREAD, TRACELEVEL_DEBUG,
               "CThreadObjectWithQueue::SendCmd - %d - %s\n", result, queueName.c_str());
    return result;
}

/// The message says which run it is for. One that the thread had no need of, because it had not
/// been started yet or was about to end, would otherwise wait in the queue and end the next run.
void CThreadObjectWithQueue::sendStop(Run run) {
    ZANT_TRACE(TRACEUNIT_QUEUE_THREAD, TRACELEVEL_INFO2,
               "CThreadObjectWithQueue::StopThread() - Sending SIG_ID_STOP_THREAD\n");
    CZantMsg stop(SIG_ID_STOP_THREAD);
    stop.param4 = run == 0 ? noRun : static_cast<int32_t>(run);
    // A full queue wakes the thread anyway, which then sees that it is to end.
    static_cast<void>(m_queue.TrySend(stop, 0));
}

/// Another process may not stop a thread of this one. Whoever stops it here has said so in
/// `stopRequested` as well.
bool CThreadObjectWithQueue::stopsThisRun(const CZantMsg& msg, Run run) const {
    return !m_queue.CarriesSharedAddresses() && msg.signalId == SIG_ID_STOP_THREAD &&
           (msg.param4 == 0 || static_cast<Run>(msg.param4) == run);
}

void CThreadObjectWithQueue::StopThread() {
    const Run run = requestStop();
    if (initialised)
        sendStop(run);
    else
        ZANT_TRACE(
            TRACEUNIT_QUEUE_THREAD, TRACELEVEL_WARNING,
            "CThreadObjectWithQueue::StopThread() - Stop for uninitialized thread ignored\n");
    ZANT_TRACE(TRACEUNIT_THREAD, TRACELEVEL_INFO3,
               "CThreadObject::StopThread() - Stopping thread\n");
}

void CThreadObjectWithQueue::StopThreadAndWait() {
    const Run run = requestStop();
    if (initialised)
        sendStop(run);
    ZANT_TRACE(TRACEUNIT_QUEUE_THREAD, TRACELEVEL_INFO,
               "CThreadObjectWithQueue:: Wait until thread is finished\n");
    waitForEnd(run);
}

void CThreadObjectWithQueue::ThreadWorkFunction() {
    BeforeProcessingMsgs();
    ReadMsgsFromNonBlockingQueue();
    m_queue.ClearQueue();
}

void CThreadObjectWithQueue::BeforeProcessingMsgs() {
    ZANT_TRACE(TRACEUNIT_QUEUE_THREAD, TRACELEVEL_INFO,
               "CThreadObjectWithQueue::BeforeProcessingMsgs() called\n");
}

void CThreadObjectWithQueue::ReadMsgsFromNonBlockingQueue() {
    const Run run = currentRun();
    CZantMsg msg;
    while (!stopRequested)
        handleNextMsg(msg, false, run);
}

void CThreadObjectWithQueue::ReadMsgsFromBlockingQueue() {
    const Run run = currentRun();
    CZantMsg msg;
    while (!stopRequested)
        handleNextMsg(msg, true, run);
}

void CThreadObjectWithQueue::handleNextMsg(CZantMsg& msg, bool queueBlocks, Run run) {
    // Waits without the mutex: whoever takes it must not have to wait for the next message.
    int32_t result = m_queue.WaitForMsg();
    if (result == 0) {
        const MutexLock lock(m_mutex);
        result = m_queue.Receive(&msg, 0);
        if (result == 0 && msg.signalId != SIG_ID_STOP_THREAD) {
            if (const auto thrown = thrownBy([&] { ProcessZantMsg(&msg); })) {
                ZANT_TRACE(TRACEUNIT_QUEUE_THREAD, TRACELEVEL_ERROR,
                           "CThreadObjectWithQueue::ERROR - Message is lost, its handler threw: "
                           "%s - Signal = %s\n",
                           thrown->c_str(), msg.signalName());
                msg.FreeSignal();
            }
            // They were the handler's; what it did not free is not this message's any more.
            msg.signalPtr = nullptr;
            msg.signalObj = nullptr;
            ++nrProcessedMsgs;
            return;
        }
    }
    if (result != 0) {
        traceReadError(result, queueBlocks);
        // What could not be read is gone, and the next message must not wait for it. Where there is
        // nothing to wait on, the thread must not spin.
        if (result != CZantMsgQueue::receiveFailed)
            usleep(pauseWithoutQueue);
        return;
    }
    m_queue.DropPayload(msg);
    if (!stopsThisRun(msg, run))
        return;
    if (queueBlocks)
        ZANT_TRACE(TRACEUNIT_QUEUE_THREAD, TRACELEVEL_INFO,
                   "CThreadObjectWithQueue::Received SIG_ID_STOP_THREAD\n");
    else
        ZANT_TRACE(TRACEUNIT_QUEUE_THREAD, TRACELEVEL_INFO,
                   "CThreadObjectWithQueue::Received SIG_ID_STOP_THREAD - Thread-Id = %ld\n",
                   static_cast<long>(gettid()));
    stopRequested = 1;
}

void CThreadObjectWithQueue::traceReadError(int32_t code, bool queueBlocks) const {
    if (queueBlocks)
        ZANT_TRACE(TRACEUNIT_QUEUE_THREAD, TRACELEVEL_ERROR,
                   " CThreadObjectWithQueue::ERROR - Read message failed - rc=%d\n", code);
    else if (code != CZantMsgQueue::wokenForNothing)
        ZANT_TRACE(TRACEUNIT_QUEUE_THREAD, TRACELEVEL_ERROR,
                   " CThreadObjectWithQueue::ERROR - Read message failed - rc=%d - Thread-Id = "
                   "%ld\n",
                   code, static_cast<long>(gettid()));
}
