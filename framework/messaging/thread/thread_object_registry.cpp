#include "debug/trace/zant_trace.h"
#include "messaging/thread/thread_object.h"
#include "util/cancellation_block.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <vector>

Mutex CThreadObject::m_zantGlobalThreadMutex;
pthread_cond_t CThreadObject::m_stateChanged = PTHREAD_COND_INITIALIZER;
uint64_t CThreadObject::m_lastSerial = 0;
bool CThreadObject::m_stopAllIsActive = false;
pthread_t CThreadObject::m_stopAllThread = 0;
CThreadObject* CThreadObject::m_stopAllObject = nullptr;
std::atomic<bool> CThreadObject::m_zantGlobalThreadHandlingTerminated{false};

namespace {

constexpr const char* threadListRule =
    "------------+-----------+------+---------+-------------------------------------------\n";

} // namespace

void CThreadObject::waitForChange() {
    pthread_cond_wait(&m_stateChanged, m_zantGlobalThreadMutex.handle());
}

bool CThreadObject::waitForChange(std::chrono::steady_clock::time_point deadline) {
    const timespec until = monotonicTime(deadline);
    return pthread_cond_clockwait(&m_stateChanged, m_zantGlobalThreadMutex.handle(),
                                  CLOCK_MONOTONIC, &until) != ETIMEDOUT;
}

void CThreadObject::announceChange() {
    pthread_cond_broadcast(&m_stateChanged);
}

void CThreadObject::AnnounceChange() {
    const CancellationBlock block;
    const MutexLock lock(m_zantGlobalThreadMutex);
    announceChange();
}

void CThreadObject::AddThreadToGlobalThreadList(CThreadObject* object) {
    const CancellationBlock block;
    if (!object)
        return;
    const MutexLock lock(m_zantGlobalThreadMutex);
    addEntry(object);
}

void CThreadObject::RemoveThreadFromGlobalThreadList(CThreadObject* object) {
    const CancellationBlock block;
    if (m_zantGlobalThreadHandlingTerminated)
        return;
    const MutexLock lock(m_zantGlobalThreadMutex);
    removeEntry(object);
}

/// An object that ended while handling was terminated is in the list already.
void CThreadObject::addEntry(CThreadObject* object) {
    const auto isObject = [object](const T_GlobalThreadInfo& info) {
        return info.object == object;
    };
    if (std::none_of(globalThreadObjectList.begin(), globalThreadObjectList.end(), isObject))
        globalThreadObjectList.push_back({object, ++m_lastSerial});
}

void CThreadObject::removeEntry(CThreadObject* object) {
    const auto found =
        std::find_if(globalThreadObjectList.begin(), globalThreadObjectList.end(),
                     [object](const T_GlobalThreadInfo& info) { return info.object == object; });
    if (found != globalThreadObjectList.end())
        globalThreadObjectList.erase(found);
}

std::string CThreadObject::GetThreadName(unsigned handle) {
    const CancellationBlock block;
    std::string found = "(unknown)";
    const MutexLock lock(m_zantGlobalThreadMutex);
    for (const T_GlobalThreadInfo& info : globalThreadObjectList) {
        if (static_cast<unsigned>(info.object->m_thread) == handle)
            found = info.object->name;
    }
    return found;
}

CThreadObject::Info CThreadObject::info() {
    return {m_thread, threadId, GetThreadType(), GetNrOfProcessedMsgs(), name};
}

std::vector<CThreadObject::Info> CThreadObject::GetThreadInfos() {
    const CancellationBlock block;
    std::vector<Info> infos;
    const MutexLock lock(m_zantGlobalThreadMutex);
    for (const T_GlobalThreadInfo& entry : globalThreadObjectList)
        infos.push_back(entry.object->info());
    return infos;
}

void CThreadObject::ListGlobalThreadObjectList(long select) {
    const CancellationBlock block;
    const auto infos = GetThreadInfos(); // printed without the lock: output may be slow
    FormattedStringToStdout("\nList of thread objects\n");
    FormattedStringToStdout("\nTypes: 1 = while-loop, 2 = msg-loop, 3 = msg-loop with states\n\n");
    FormattedStringToStdout("Thread-Addr | Thread-Id | Type | Msgs    | Name\n");
    FormattedStringToStdout("%s", threadListRule);
    for (const Info& info : infos) {
        if (select == 0 || static_cast<long>(info.handle) == select || info.threadId == select)
            FormattedStringToStdout("0x%8lx | %9ld | %4d | %7d | %s\n",
                                    static_cast<unsigned long>(info.handle),
                                    static_cast<long>(info.threadId), info.type,
                                    static_cast<int>(info.processedMsgs), info.name.c_str());
    }
    FormattedStringToStdout("%s", threadListRule);
}

/// An object whose thread has ended stays listed while handling is terminated, but may be half
/// destroyed: only running threads keep their objects.
const T_GlobalThreadInfo* CThreadObject::nextToStop(uint64_t after, uint64_t last) {
    for (const T_GlobalThreadInfo& info : globalThreadObjectList) {
        if (info.serial > after && info.serial <= last && info.object->running &&
            !info.object->isOwnThread())
            return &info;
    }
    return nullptr;
}

bool CThreadObject::callerIsThreadObject() {
    return std::any_of(globalThreadObjectList.begin(), globalThreadObjectList.end(),
                       [](const T_GlobalThreadInfo& info) REQUIRES(m_zantGlobalThreadMutex) {
                           return info.object->isOwnThread();
                       });
}

void CThreadObject::StopAllThreads() {
    const CancellationBlock block;
    m_zantGlobalThreadHandlingTerminated = true;
    MutexLock lock(m_zantGlobalThreadMutex);
    while (m_stopAllIsActive) {
        // Whoever stops all waits for this thread too.
        if (callerIsThreadObject())
            return;
        waitForChange();
    }
    m_stopAllIsActive = true;
    m_stopAllThread = pthread_self();

    // The lock is not held while a thread is waited for, because that thread may need it to end.
    // What keeps the object alive meanwhile is that its destructor waits for m_stopAllObject.
    const uint64_t last = m_lastSerial;
    uint64_t after = 0;
    while (const T_GlobalThreadInfo* const next = nextToStop(after, last)) {
        after = next->serial;
        CThreadObject* const object = next->object;
        const std::string stoppedName = object->name;
        m_stopAllObject = object;
        lock.unlock();
        ZANT_TRACE(TRACEUNIT_THREAD, TRACELEVEL_INFO,
                   "CThreadObject::StopAllThreads() - ++++ Stopping thread %s ++++\n",
                   stoppedName.c_str());
        object->StopThreadAndWait();
        lock.lock();
        m_stopAllObject = nullptr;
        announceChange();
    }
    m_stopAllIsActive = false; // told of already: the lock was not given back since
}
