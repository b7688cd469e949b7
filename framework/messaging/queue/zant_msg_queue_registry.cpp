#include "debug/trace/zant_trace.h"
#include "messaging/queue/zant_msg.h"
#include "messaging/queue/zant_msg_body.h"
#include "messaging/queue/zant_msg_queue.h"
#include "util/cancellation_block.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <vector>

Mutex CZantMsgQueue::m_zantMsgQueueMutex;
CZantMsgQueue* CZantMsgQueue::m_quickAccess[quickAccessSize];
std::atomic<bool> CZantMsgQueue::m_zantMsgQueueHandlingTerminated{false};
std::atomic<uint32_t> CZantMsgQueue::totalNrOfSentMsgs{0};

namespace {

constexpr const char* queueListRule =
    "-------+------+-----------+-----------+-------+----------+---------+"
    "------------------------------------\n";

} // namespace

void CZantMsgQueue::AddQueueToGlobalMsgQueueList(CZantMsgQueue* queue, int handle) {
    const CancellationBlock block;
    if (!queue || handle < 0)
        return;
    {
        const MutexLock lock(m_zantMsgQueueMutex);
        globalMsgQueueList.push_back({queue, handle});
        if (handle < quickAccessSize) {
            m_quickAccess[handle] = queue;
            return;
        }
    }
    ZANT_TRACE(TRACEUNIT_MSG_QUEUE, TRACELEVEL_WARNING,
               "CZantMsgQueue::AddQueueToGlobalMsgQueueList - Quick access array too small - %d "
               "instead of %d\n",
               quickAccessSize, handle);
}

void CZantMsgQueue::RemoveQueueFromGlobalMsgQueueList(CZantMsgQueue* queue, int handle) {
    const CancellationBlock block;
    if (m_zantMsgQueueHandlingTerminated)
        return;
    const MutexLock lock(m_zantMsgQueueMutex);
    removeEntry(queue, handle);
}

void CZantMsgQueue::removeEntry(const CZantMsgQueue* queue, int handle) {
    const auto found =
        std::find_if(globalMsgQueueList.begin(), globalMsgQueueList.end(),
                     [queue](const T_GlobalMsgQueueInfo& info) { return info.queue == queue; });
    if (found != globalMsgQueueList.end())
        globalMsgQueueList.erase(found);
    // The number may have a new owner already.
    if (handle >= 0 && handle < quickAccessSize && m_quickAccess[handle] == queue)
        m_quickAccess[handle] = nullptr;
}

/// Leaves the registry for good, even while handling is terminated: no entry outlives its queue.
void CZantMsgQueue::forget() {
    const MutexLock lock(m_zantMsgQueueMutex);
    globalMsgQueueList.remove_if(
        [this](const T_GlobalMsgQueueInfo& info) { return info.queue == this; });
    std::replace(std::begin(m_quickAccess), std::end(m_quickAccess), this,
                 static_cast<CZantMsgQueue*>(nullptr));
}

bool CZantMsgQueue::isShared() const {
    const MutexLock lock(m_zantMsgQueueMutex);
    return std::any_of(globalMsgQueueList.begin(), globalMsgQueueList.end(),
                       [this](const T_GlobalMsgQueueInfo& info) {
                           return info.queue != this &&
                                  queue_io::identityOf(info.handle) == m_identity;
                       });
}

CZantMsgQueue* CZantMsgQueue::findQueue(int handle) {
    if (handle >= 0 && handle < quickAccessSize)
        return m_quickAccess[handle];
    for (const T_GlobalMsgQueueInfo& info : globalMsgQueueList) {
        if (info.handle == handle)
            return info.queue;
    }
    return nullptr;
}

CZantMsgQueue* CZantMsgQueue::GetQueueObjPtrByHandle(int handle) {
    const CancellationBlock block;
    const MutexLock lock(m_zantMsgQueueMutex);
    return findQueue(handle);
}

std::string CZantMsgQueue::GetQueueNameByHandle(int handle) {
    const CancellationBlock block;
    const MutexLock lock(m_zantMsgQueueMutex);
    const CZantMsgQueue* const queue = findQueue(handle);
    return queue ? queue->name : "Unknown";
}

CZantMsgQueue::SendErrors CZantMsgQueue::sendErrorsOf(int handle) {
    const MutexLock lock(m_zantMsgQueueMutex);
    const CZantMsgQueue* const queue = findQueue(handle);
    if (!queue)
        return SendErrors::unknownQueue;
    return queue->sendErrorsSuppressed ? SendErrors::suppressed : SendErrors::traced;
}

CZantMsgQueue::FreeShared CZantMsgQueue::freeSharedOf(int handle) {
    const MutexLock lock(m_zantMsgQueueMutex);
    const CZantMsgQueue* const queue = findQueue(handle);
    return queue ? queue->m_freeShared.load() : nullptr;
}

CZantMsgQueue::Info CZantMsgQueue::info(int listedHandle) const {
    mq_attr now{};
    const bool found = mq_getattr(listedHandle, &now) == 0;
    return {listedHandle,
            name,
            found,
            found && (now.mq_flags & O_NONBLOCK) == 0,
            static_cast<int>(now.mq_curmsgs),
            static_cast<int>(now.mq_maxmsg),
            maxUsed,
            lastSignal,
            nrRead};
}

std::vector<CZantMsgQueue::Info> CZantMsgQueue::GetQueueInfos() {
    const CancellationBlock block;
    std::vector<Info> infos;
    const MutexLock lock(m_zantMsgQueueMutex);
    for (const T_GlobalMsgQueueInfo& entry : globalMsgQueueList)
        infos.push_back(entry.queue->info(entry.handle));
    return infos;
}

void CZantMsgQueue::ListGlobalMsgQueueList(int handle) {
    const CancellationBlock block;
    const auto infos = GetQueueInfos(); // printed without the lock: output may be slow
    FormattedStringToStdout("List of queues\n");
    FormattedStringToStdout(
        "handle | size | max. used | cur. used | block | last msg | nr read | name\n");
    FormattedStringToStdout("%s", queueListRule);
    for (const Info& info : infos) {
        if (handle != 0 && handle != info.handle)
            continue;
        if (!info.isOpen)
            FormattedStringToStdout("Error getting attributes for queue handle %d\n", info.handle);
        FormattedStringToStdout("%6d | %4d | %9d | %9d | %s | %8u | %7u | %s\n", info.handle,
                                info.maximum, info.maxUsed, info.waiting,
                                !info.isOpen      ? "UNKWN"
                                : info.isBlocking ? "BLOCK"
                                                  : "NONBL",
                                info.lastSignal, info.nrRead, info.name.c_str());
    }
    FormattedStringToStdout("%s", queueListRule);
}

void CZantMsgQueue::DumpQueue(int handle) {
    const CancellationBlock block;
    const FreeShared freeShared = freeSharedOf(handle);
    ZantMsgBody body{};
    for (int nr = 1; queue_io::receiveAtOnce(handle, body) >= 1; ++nr) {
        FormattedStringToStdout(
            "CZantMsgQueue::DumpQueue - Msg read from queue - nr: %d  signalname: %ld\n", nr,
            static_cast<long>(body.signalId));
        discard(body, freeShared);
        body = {};
    }
}
