#include "messaging/thread/thread_object.h"

#include "debug/trace/zant_trace.h"
#include "util/cancellation_block.h"
#include "util/sanitizers.h"
#include "util/thrown_by.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

/// What a new thread needs from its starter, on the starter's stack until the thread runs.
struct CThreadObject::Launch {
    CThreadObject* object;
    bool runs;
};

/// The last thing a thread does, also when it is cancelled. The object may be gone by then: an
/// object that is destroyed by its own thread clears `object`.
class CThreadObject::EndOfThread {
public:
    explicit EndOfThread(CThreadObject* ending) : object(ending) {}
    ~EndOfThread() { finish(); }
    void finish() {
        const CancellationBlock block;
        const MutexLock lock(m_zantGlobalThreadMutex);
        const sanitizers::SeenLock seen(m_zantGlobalThreadMutex.handle());
        if (object)
            object->threadHasEnded();
        object = nullptr;
    }
    EndOfThread(const EndOfThread&) = delete;
    EndOfThread& operator=(const EndOfThread&) = delete;

    CThreadObject* object GUARDED_BY(m_zantGlobalThreadMutex);
};

namespace {

/// The object whose thread this is, as long as both live.
thread_local const std::atomic<int32_t>* stopRequestedOfCaller = nullptr;

/// Signals are the host's, and none of its handlers shall run on a framework thread: a thread
/// that is created under this block is born with all of them blocked, but for its own faults.
class SignalBlock {
public:
    SignalBlock() {
        sigset_t hosts;
        sigfillset(&hosts);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
            sigdelset(&hosts, fault);
        pthread_sigmask(SIG_BLOCK, &hosts, &m_before);
    }
    ~SignalBlock() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;

private:
    sigset_t m_before{};
};

/// Says it once: what refuses one thread refuses all.
void warnOfRefusedPriority(int priority, int error) {
    static std::atomic<bool> isSaid{false};
    if (isSaid.exchange(true))
        return;
    rlimit limit{};
    getrlimit(RLIMIT_RTPRIO, &limit);
    const std::string cause =
        error == EPERM
            ? "needs CAP_SYS_NICE, or RLIMIT_RTPRIO (ulimit -r) of at least " +
                  std::to_string(priority) + ", which is " + std::to_string(limit.rlim_cur) +
                  "; with real-time group scheduling also a run time for its cgroup"
            : "must be from 1 to " + std::to_string(sched_get_priority_max(SCHED_FIFO));
    ZANT_TRACE(TRACEUNIT_THREAD, TRACELEVEL_WARNING,
               "CThreadObject::StartThread() - SCHED_FIFO priority %d refused (%s): it %s. Threads "
               "run without\n",
               priority, strerrordesc_np(error), cause.c_str());
}

} // namespace

CThreadObject::~CThreadObject() {
    const CancellationBlock block;
    CThreadObject::StopThreadAndWait();
    const MutexLock lock(m_zantGlobalThreadMutex);
    if (isOwnThread()) {
        pthread_detach(m_thread);
        m_end->object = nullptr;
        stopRequestedOfCaller = nullptr;
    }
    removeEntry(this);
}

int32_t CThreadObject::StartThread(const char* newName, int stackSize, int priority) {
    const CancellationBlock block;
    MutexLock lock(m_zantGlobalThreadMutex);
    while (m_isBeingJoined && !running)
        waitForChange();
    if (running) {
        const std::string runningName = name;
        lock.unlock();
        ZANT_TRACE(TRACEUNIT_THREAD, TRACELEVEL_ERROR,
                   "CThreadObject::Starting thread - Thread is already running - name=%s\n",
                   runningName.c_str());
        return 0;
    }
    stopRequested = 0;
    if (newName)
        name = newName;

    Launch launch{this, false};
    const int error = createThread(launch, stackSize, priority);
    const std::string startedName = name;
    if (error != 0) {
        lock.unlock();
        ZANT_TRACE(TRACEUNIT_THREAD, TRACELEVEL_ERROR,
                   "CThreadObject::Create thread FAILED - rc=%d errno=%d name=%s\n", error, error,
                   startedName.c_str());
        return createFailed;
    }
    // The object is the thread's from here on, which may even destroy it: work on copies.
    const auto handle = m_thread;
    const int type = GetThreadType();
    const std::string schedule = applyPriority(priority);
    while (!launch.runs)
        waitForChange();
    lock.unlock();
    ZANT_TRACE(TRACEUNIT_THREAD, TRACELEVEL_INFO,
               "CThreadObject::Create thread successful - rc=%d name=%s id=%ld type=%d  this=%p\n",
               error, startedName.c_str(), static_cast<long>(handle), type,
               static_cast<void*>(this));
    ZANT_TRACE(TRACEUNIT_THREAD, TRACELEVEL_INFO, "CThreadObject::StartThread() - %s\n",
               schedule.c_str());
    return 0;
}

int CThreadObject::createThread(Launch& launch, int stackSize, int priority) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    if (stackSize >= 1) {
        if (const int failed =
                pthread_attr_setstacksize(&attributes, static_cast<size_t>(stackSize)))
            ZANT_TRACE(TRACEUNIT_THREAD, TRACELEVEL_ERROR,
                       "CThreadObject::Set stacksize for thread FAILED - rc=%d errno=%d name=%s\n",
                       failed, failed, name.c_str());
        if (priority > 0) {
            if (pthread_attr_setschedpolicy(&attributes, SCHED_FIFO) == 0)
                ZANT_TRACE(TRACEUNIT_THREAD, TRACELEVEL_INFO,
                           "CThreadObject::Set schedule policy SCHED_FIFO for thread successful\n");
            else
                ZANT_TRACE(TRACEUNIT_THREAD, TRACELEVEL_WARNING,
                           "CThreadObject::Set schedule policy for thread failed\n");
        }
    }
    pthread_t thread = 0;
    int error = 0;
    {
        const SignalBlock block;
        error = pthread_create(&thread, &attributes, StaticThreadFunction, &launch);
    }
    pthread_attr_destroy(&attributes);
    if (error != 0)
        return error;

    m_thread = thread;
    running = 1;
    ++m_run;
    addEntry(this);
    return 0;
}

/// The thread cannot end before the lock is given back, so its handle is good. What was done, for
/// the trace.
std::string CThreadObject::applyPriority(int priority) const {
    int policy = 0;
    sched_param before{};
    pthread_getschedparam(m_thread, &policy, &before);
    int error = 0;
    if (priority > 0) {
        sched_param wanted{};
        wanted.sched_priority = priority;
        error = pthread_setschedparam(m_thread, SCHED_FIFO, &wanted);
    }
    sched_param after{};
    pthread_getschedparam(m_thread, &policy, &after);

    size_t stackSize = 0;
    pthread_attr_t defaults;
    pthread_attr_init(&defaults);
    pthread_attr_getstacksize(&defaults, &stackSize);
    pthread_attr_destroy(&defaults);

    std::string text = "priority before " + std::to_string(before.sched_priority) + ", after " +
                       std::to_string(after.sched_priority) + ", scheduler " +
                       std::to_string(policy) + ", default stack size " +
                       std::to_string(stackSize) + ", debug level " + std::to_string(m_debugLevel);
    if (error != 0)
        warnOfRefusedPriority(priority, error);
    return text;
}

void* CThreadObject::StaticThreadFunction(void* argument) {
    // Held back until the end of the thread is taken care of.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    auto& launch = *static_cast<Launch*>(argument);
    launch.object->RealThreadFunction(launch);
    return nullptr;
}

void CThreadObject::RealThreadFunction(Launch& launch) {
    EndOfThread end(this);
    stopRequestedOfCaller = &stopRequested;
    threadId = static_cast<int32_t>(gettid());
    processId = static_cast<int32_t>(getpid());
    {
        const MutexLock lock(m_zantGlobalThreadMutex);
        if (!name.empty())
            prctl(PR_SET_NAME, name.c_str());
        m_end = &end;
        launch.runs = true;
        announceChange();
    }
    runWorkFunction(end);
}

// The unwinding of a cancelled thread is caught as a reference to nothing, which the sanitizer does
// not know to be by design.
__attribute__((no_sanitize("null"))) void CThreadObject::runWorkFunction(EndOfThread& end) {
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    try {
        if (const auto thrown = thrownBy([this] { ThreadWorkFunction(); }))
            ZANT_TRACE(TRACEUNIT_THREAD, TRACELEVEL_ERROR,
                       "CThreadObject::RealThreadFunction - Thread ends by an exception: %s\n",
                       thrown->c_str());
    } catch (abi::__forced_unwind&) {
        sanitizers::forgetLeftFrames();
        end.finish();
        throw;
    }
}

void CThreadObject::threadHasEnded() {
    if (!m_zantGlobalThreadHandlingTerminated)
        removeEntry(this);
    running = 0;
    m_end = nullptr;
    if (!m_isBeingJoined) {
        pthread_detach(m_thread);
        m_thread = 0;
    }
    announceChange();
}

bool CThreadObject::isOwnThread() const {
    return running && pthread_equal(m_thread, pthread_self());
}

CThreadObject::Run CThreadObject::currentRun() const {
    const MutexLock lock(m_zantGlobalThreadMutex);
    return m_run;
}

bool CThreadObject::CallerShallStop() {
    return stopRequestedOfCaller && *stopRequestedOfCaller != 0;
}

CThreadObject::Run CThreadObject::requestStop() {
    const CancellationBlock block;
    const MutexLock lock(m_zantGlobalThreadMutex);
    stopRequested = 1;
    announceChange();
    return m_run;
}

void CThreadObject::cancelThread(Run run) {
    const CancellationBlock block;
    const MutexLock lock(m_zantGlobalThreadMutex);
    // A running thread still has to take the lock before it ends, so its handle is good.
    if (running && m_run == run && !isOwnThread())
        pthread_cancel(m_thread);
}

void CThreadObject::StopThread() {
    ZANT_TRACE(TRACEUNIT_THREAD, TRACELEVEL_INFO3,
               "CThreadObject::StopThread() - Stopping thread\n");
    requestStop();
}

void CThreadObject::StopThreadAndWait() {
    waitForEnd(requestStop());
}

void CThreadObject::waitForEnd(Run run) {
    const CancellationBlock block;
    unsigned long handle = 0;
    std::string stoppedName;
    {
        const MutexLock lock(m_zantGlobalThreadMutex);
        handle = static_cast<unsigned long>(m_thread);
        stoppedName = name;
    }
    ZANT_TRACE(TRACEUNIT_THREAD, TRACELEVEL_INFO,
               "CThreadObject::StopThreadAndWait() - Stopping thread - m_thread = 0x%08lx = %s\n",
               handle, stoppedName.c_str());
    joinThread(run);
    ZANT_TRACE(TRACEUNIT_THREAD, TRACELEVEL_INFO,
               "CThreadObject::StopThreadAndWait() - Thread stopped - m_thread = 0x%08lx = %s\n",
               handle, stoppedName.c_str());
}

void CThreadObject::joinThread(Run run) {
    MutexLock lock(m_zantGlobalThreadMutex);
    if (isOwnThread()) {
        lock.unlock();
        ZANT_TRACE(TRACEUNIT_THREAD, TRACELEVEL_ERROR,
                   "CThreadObject::StopThreadAndWait() - A thread can not wait for itself: it ends "
                   "when its work function returns\n");
        return;
    }
    while (m_isBeingJoined && m_run == run)
        waitForChange();
    if (m_thread != 0 && m_run == run) {
        m_isBeingJoined = true;
        const pthread_t thread = m_thread;
        lock.unlock();
        pthread_join(thread, nullptr);
        lock.lock();
        m_isBeingJoined = false;
        m_thread = 0;
        announceChange();
    }
    // The caller may go on to destroy the object.
    while (m_stopAllObject == this && !pthread_equal(m_stopAllThread, pthread_self()))
        waitForChange();
}
