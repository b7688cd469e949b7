#include "messaging/observer/observable_callback_queue.h"

#include "debug/trace/zant_trace.h"
#include "messaging/queue/zant_msg_queue.h"

std::atomic<uint32_t> CObservableCallbackQueue::totalNrOfQueueCallbacks{0};

const ObserverList::Form CObservableCallbackQueue::form = {
    [](const ObserverList::Record& record, CZantMsg& delivered) {
        const int handle = static_cast<int>(record.observer);
        ZANT_TRACE_STREAM(
            TRACEUNIT_OBSERVER, TRACELEVEL_INFO,
            "ObservableCallbackQueue::NotifyObserversWithCallbackQueue() - sending msg to queue "
            "(Handle = "
                << handle << ", Name = " << CZantMsgQueue::GetQueueNameByHandle(handle)
                << ") : Signal = " << delivered.signalName()
                << ", SignalPtr = " << delivered.signalPtr << ", CallbackId = " << record.callbackId
                << ", CallbackId2 = " << record.callbackId2 << '\n');
        const int32_t result = CZantMsgQueue::Send(handle, &delivered, 0);
        totalNrOfQueueCallbacks.fetch_add(1, std::memory_order_relaxed);
        return result;
    },
    "CObservableCallbackQueue::RegisterCallbackQueue() called. this = ",
    "CObservableCallbackQueue::Queue already registered. this = ",
    "ObservableCallbackQueue::NotifyObserversWithCallbackQueue() called. Nr of msgs to send = ",
    "==== FATAL ERROR ==== CObservableCallbackQueue::Signal size is not set - required to support "
    "msgs with signals to multiple observers\n"};

int32_t CObservableCallbackQueue::RegisterCallbackQueue(int queue, long callbackId,
                                                        long callbackId2, unsigned long signal) {
    if (queue == 0) {
        ZANT_TRACE_STREAM(
            TRACEUNIT_OBSERVER, TRACELEVEL_ERROR,
            "CObservableCallbackQueue::RegisterCallbackQueue() - Illegal queue handle 0. this = "
                << this << '\n');
        return observerIllegal;
    }
    if (QueueTypeIsBlocking(queue)) {
        ZANT_TRACE_STREAM(TRACEUNIT_OBSERVER, TRACELEVEL_ERROR,
                          "CObservableCallbackQueue:: It is not allowed to register blocking "
                          "queues. this = "
                              << this << '\n');
        return observerBlocking;
    }
    return m_observers.add(queue, callbackId, callbackId2, signal);
}

int32_t CObservableCallbackQueue::UnregisterCallbackQueue(int queue, unsigned long signal) {
    return m_observers.remove(queue, signal);
}

void CObservableCallbackQueue::DeleteObserversWithCallbackQueue() {
    m_observers.clear();
}

int32_t CObservableCallbackQueue::CountObserversWithCallbackQueue(unsigned long signal) {
    return m_observers.count(signal);
}

bool CObservableCallbackQueue::AlreadyRegisteredWithCallbackQueue(int queue, unsigned long signal) {
    return m_observers.contains(queue, signal);
}

int32_t CObservableCallbackQueue::NotifyObserversWithCallbackQueue(CZantMsg* msg) {
    return m_observers.notify(msg);
}
