#ifndef MESSAGING_THREAD_OBJECT_H
#define MESSAGING_THREAD_OBJECT_H

#include "util/cancellation_block.h"
#include "util/mutex.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <pthread.h>
#include <string>
#include <vector>

class CThreadObject;

/// One listed thread object.
struct T_GlobalThreadInfo {
    CThreadObject* object;
    /// Grows with every entry.
    uint64_t serial;
};

/// Owns one thread, and lists all of the process.
///
/// Any thread may start, stop and join; these calls may meet each other and the end of the thread
/// in any order. A thread that ends by itself is detached, one that somebody waits for is joined.
///
/// A derived class that has members of its own which the thread uses calls StopThreadAndWait in its
/// own destructor: once that is through, the base can not keep the thread from them any more.
class CThreadObject {
public:
    static constexpr int32_t createFailed = -1100;

    explicit CThreadObject(int debugLevel = 0) : m_debugLevel(debugLevel) {}
    virtual ~CThreadObject();
    CThreadObject(const CThreadObject&) = delete;
    CThreadObject& operator=(const CThreadObject&) = delete;

    /// Starts the thread; returns when it runs. `stackSize` in bytes, below 1 for the default;
    /// `priority` above 0 makes it a SCHED_FIFO thread, as far as the process may. A thread that
    /// runs already is left alone. 0, or -1100 when there can be no thread.
    virtual int32_t StartThread(const char* name, int stackSize, int priority);
    /// Asks the thread to end.
    virtual void StopThread();
    /// Asks the thread to end and waits until it has. Called by the thread itself it only asks.
    virtual void StopThreadAndWait();
    /// 1 plain, 2 queue, 3 queue with states, 4 remote-call queue, 5 blocking wait.
    virtual int GetThreadType() { return 1; }
    /// Messages handled since the start; 0 for a thread without a queue.
    virtual uint32_t GetNrOfProcessedMsgs() const { return 0; }
    /// What the thread does. It looks at `stopRequested` and ends when that is set.
    virtual void ThreadWorkFunction() = 0;

    ///@{
    /// Locks and unlocks the list.
    static void GetMutex() ACQUIRE(m_zantGlobalThreadMutex) { m_zantGlobalThreadMutex.lock(); }
    static void ReleaseMutex() RELEASE(m_zantGlobalThreadMutex) {
        m_zantGlobalThreadMutex.unlock();
    }
    ///@}
    /// Lists an object whose thread starts; once.
    static void AddThreadToGlobalThreadList(CThreadObject* object)
        EXCLUDES(m_zantGlobalThreadMutex);
    /// Does nothing while handling is terminated.
    static void RemoveThreadFromGlobalThreadList(CThreadObject* object)
        EXCLUDES(m_zantGlobalThreadMutex);
    /// A listed thread as it is now.
    struct Info {
        pthread_t handle; ///< 0: it has ended
        int32_t threadId; ///< the kernel's
        int type;
        uint32_t processedMsgs;
        std::string name;
    };
    /// All of them, in the order of their start.
    static std::vector<Info> GetThreadInfos() EXCLUDES(m_zantGlobalThreadMutex);
    /// Prints the listed threads to the shell's output: all for 0, else those whose pthread handle
    /// or kernel thread id is given.
    static void ListGlobalThreadObjectList(long select) EXCLUDES(m_zantGlobalThreadMutex);
    /// The name of the listed thread with this pthread handle (its low 32 bits), or "(unknown)".
    static std::string GetThreadName(unsigned handle) EXCLUDES(m_zantGlobalThreadMutex);
    /// Stops all threads that are listed now, one after the other in the order of their start, and
    /// terminates handling. A calling thread object is left out.
    static void StopAllThreads() EXCLUDES(m_zantGlobalThreadMutex);
    /// True when the caller runs on the thread of an object that was asked to end: what may take
    /// long on somebody's thread looks here, and leaves.
    static bool CallerShallStop();
    /// Waits until the predicate holds, the calling thread is asked to end or the time has come.
    /// The predicate takes no lock; it is looked at when a thread begins, ends or is asked to, and
    /// after `AnnounceChange`. Whether it holds.
    template <typename Predicate>
    static bool WaitUnlessStopped(std::chrono::steady_clock::time_point deadline,
                                  Predicate predicate) EXCLUDES(m_zantGlobalThreadMutex) {
        const CancellationBlock block;
        const MutexLock lock(m_zantGlobalThreadMutex);
        while (!predicate() && !CallerShallStop() && waitForChange(deadline)) {
        }
        return predicate();
    }
    /// Has those that wait look again.
    static void AnnounceChange() EXCLUDES(m_zantGlobalThreadMutex);

    ///@{
    /// Terminate freezes the list before static objects go: threads that end afterwards stay
    /// listed, until their objects are destroyed. Start ends that.
    static void Start() { m_zantGlobalThreadHandlingTerminated = false; }
    static void Terminate() { m_zantGlobalThreadHandlingTerminated = true; }
    ///@}

protected:
    /// Which start of the thread something is meant for: counts from 1, 0 before the first. A stop
    /// that meets a restart must not stop, or wait for, the new run.
    using Run = uint32_t;

    /// Sets `stopRequested` and tells which run it met.
    Run requestStop() EXCLUDES(m_zantGlobalThreadMutex);
    /// Cancels the thread if it is still in this run and is not the calling one.
    void cancelThread(Run run) EXCLUDES(m_zantGlobalThreadMutex);
    /// Waits until the run is over, with the traces of a stop. Returns at once on the thread
    /// itself.
    void waitForEnd(Run run) EXCLUDES(m_zantGlobalThreadMutex);
    Run currentRun() const EXCLUDES(m_zantGlobalThreadMutex);

    std::atomic<int32_t> stopRequested{0};
    /// A queue thread holds it while it handles a message.
    Mutex m_mutex;

private:
    struct Launch;
    class EndOfThread;

    static void* StaticThreadFunction(void* launch);
    void RealThreadFunction(Launch& launch);
    void runWorkFunction(EndOfThread& end);
    int createThread(Launch& launch, int stackSize, int priority) REQUIRES(m_zantGlobalThreadMutex);
    std::string applyPriority(int priority) const REQUIRES(m_zantGlobalThreadMutex);
    void threadHasEnded() REQUIRES(m_zantGlobalThreadMutex);
    bool isOwnThread() const REQUIRES(m_zantGlobalThreadMutex);
    void joinThread(Run run) EXCLUDES(m_zantGlobalThreadMutex);
    static void waitForChange() REQUIRES(m_zantGlobalThreadMutex);
    /// False when the deadline has passed.
    static bool waitForChange(std::chrono::steady_clock::time_point deadline)
        REQUIRES(m_zantGlobalThreadMutex);
    static void announceChange() REQUIRES(m_zantGlobalThreadMutex);
    Info info() REQUIRES(m_zantGlobalThreadMutex);
    static void addEntry(CThreadObject* object) REQUIRES(m_zantGlobalThreadMutex);
    static void removeEntry(CThreadObject* object) REQUIRES(m_zantGlobalThreadMutex);
    static const T_GlobalThreadInfo* nextToStop(uint64_t after, uint64_t last)
        REQUIRES(m_zantGlobalThreadMutex);
    static bool callerIsThreadObject() REQUIRES(m_zantGlobalThreadMutex);

    int32_t m_debugLevel;
    std::string name GUARDED_BY(m_zantGlobalThreadMutex);
    /// 0 while no thread exists.
    pthread_t m_thread GUARDED_BY(m_zantGlobalThreadMutex) = 0;
    /// From a successful start until the thread function returns.
    std::atomic<int16_t> running{0};
    /// Somebody has taken it on to join the thread; nobody else may.
    bool m_isBeingJoined GUARDED_BY(m_zantGlobalThreadMutex) = false;
    /// The end of the running thread, on that thread's stack.
    EndOfThread* m_end GUARDED_BY(m_zantGlobalThreadMutex) = nullptr;
    Run m_run GUARDED_BY(m_zantGlobalThreadMutex) = 0;
    std::atomic<int32_t> threadId{0};
    std::atomic<int32_t> processId{0};

    /// Guards the list and the state of all threads. Never held while a thread works or is waited
    /// for; nothing but traces is called under it. Outside of any object: a thread that ends has
    /// nothing of the object left to touch.
    static Mutex m_zantGlobalThreadMutex;
    static pthread_cond_t m_stateChanged;
    /// In order of start.
    static std::list<T_GlobalThreadInfo>&
        globalThreadObjectList GUARDED_BY(m_zantGlobalThreadMutex);
    static uint64_t m_lastSerial GUARDED_BY(m_zantGlobalThreadMutex);
    static bool m_stopAllIsActive GUARDED_BY(m_zantGlobalThreadMutex);
    static pthread_t m_stopAllThread GUARDED_BY(m_zantGlobalThreadMutex);
    /// The object that StopAllThreads is at work on, and must not be destroyed meanwhile.
    static CThreadObject* m_stopAllObject GUARDED_BY(m_zantGlobalThreadMutex);
    static std::atomic<bool> m_zantGlobalThreadHandlingTerminated;
};

#endif
