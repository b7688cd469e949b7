#include "messaging/observer/observable_callback_queue.h"

#include "debug/trace/zant_trace.h"
#include "messaging/queue/zant_msg_queue.h"

std::atomic<uint32_t> CObservableCallbackQueue::totalNrOfQueueCallbacks{0};

int32_t CObservableCallbackQueue::RegisterCallbackQueue(int queue, long callbackId,
                                                        long callbackId2, unsigned long signal) {
    const RecursiveMutexLock lock(m_observers.mutex());
    if (queue == 0) {
        ZANT_TRACE_STREAM(
            TRACEUNIT_OBSERVER, TRACELEVEL_ERROR,
            "CObservableCallbackQueue::RegisterCallbackQueue() - Illegal queue handle "
            "0. this = "
                << this << '\n');
        return observerIllegal;
    }
    if (QueueTypeIsBlocking(queue)) {
        ZANT_TRACE_STREAM(
            TRACEUNIT_OBSERVER, TRACELEVEL_ERROR,
            "CObservableCallbackQueue:: It is not allowed to register blocking queues. "
            "this = "
                << this << '\n');
        return observerBlocking;
    }
    const int32_t result =
        m_observers.add(queue, callbackId, callbackId2, static_cast<uint32_t>(signal));
    if (result != 0)
        ZANT_TRACE_STREAM(TRACEUNIT_OBSERVER, TRACELEVEL_ERROR,
                          "CObservableCallbackQueue::Queue already registered. this = " << this
                                                                                        << '\n');
    else
        ZANT_TRACE_STREAM(
            TRACEUNIT_OBSERVER, TRACELEVEL_INFO,
            "CObservableCallbackQueue::RegisterCallbackQueue() called. this = " << this << '\n');
    return result;
}

int32_t CObservableCallbackQueue::UnregisterCallbackQueue(int queue, unsigned long signal) {
    const RecursiveMutexLock lock(m_observers.mutex());
    return m_observers.remove(queue, static_cast<uint32_t>(signal));
}

void CObservableCallbackQueue::DeleteObserversWithCallbackQueue() {
    const RecursiveMutexLock lock(m_observers.mutex());
    m_observers.clear();
}

int32_t CObservableCallbackQueue::CountObserversWithCallbackQueue(unsigned long signal) {
    const RecursiveMutexLock lock(m_observers.mutex());
    return CountObserversForThisMsg(signal);
}

int32_t CObservableCallbackQueue::CountObserversForThisMsg(unsigned long signal) {
    return m_observers.count(static_cast<uint32_t>(signal));
}

bool CObservableCallbackQueue::AlreadyRegisteredWithCallbackQueue(int queue, unsigned long signal) {
    const RecursiveMutexLock lock(m_observers.mutex());
    return AlreadyRegisteredWithCallbackQueueNoMutex(queue, signal);
}

bool CObservableCallbackQueue::AlreadyRegisteredWithCallbackQueueNoMutex(int queue,
                                                                         unsigned long signal) {
    return m_observers.contains(queue, static_cast<uint32_t>(signal));
}

int32_t CObservableCallbackQueue::NotifyObserversWithCallbackQueue(CZantMsg* msg) {
    if (!msg)
        return observerIllegal;
    const RecursiveMutexLock lock(m_observers.mutex());
    const int32_t nrOfObservers = CountObserversForThisMsg(msg->signalId);
    ZANT_TRACE_STREAM(TRACEUNIT_OBSERVER, TRACELEVEL_INFO,
                      "ObservableCallbackQueue::NotifyObserversWithCallbackQueue() called. Nr of "
                      "msgs to send = "
                          << nrOfObservers << '\n');
    if (nrOfObservers >= 2 && payloadHasNoSize(*msg)) {
        ZANT_TRACE(
            TRACEUNIT_OBSERVER, TRACELEVEL_FATAL,
            "==== FATAL ERROR ==== CObservableCallbackQueue::Signal size is not set - required "
            "to support msgs with signals to multiple observers\n");
        msg->FreeSignal();
        return observerIllegal;
    }
    return m_observers.notify(*msg, [](const auto& record, CZantMsg& delivered) {
        ZANT_TRACE_STREAM(
            TRACEUNIT_OBSERVER, TRACELEVEL_INFO,
            "ObservableCallbackQueue::NotifyObserversWithCallbackQueue() - sending msg to queue "
            "(Handle = "
                << record.observer
                << ", Name = " << CZantMsgQueue::GetQueueNameByHandle(record.observer)
                << ") : Signal = " << GetSignalIdNamePtr(static_cast<SignalIds>(delivered.signalId))
                << ", SignalPtr = " << delivered.signalPtr << ", CallbackId = " << record.callbackId
                << ", CallbackId2 = " << record.callbackId2 << '\n');
        const int32_t result = CZantMsgQueue::Send(record.observer, &delivered, 0);
        totalNrOfQueueCallbacks.fetch_add(1, std::memory_order_relaxed);
        return result;
    });
}
