#include "messaging/observer/observable_callback_function.h"

#include "debug/trace/zant_trace.h"

std::atomic<uint32_t> CObservableCallbackFunction::totalNrOfFunctionCallbacks{0};

int32_t CObservableCallbackFunction::RegisterCallbackFunction(CObserverCallbackFunction& observer,
                                                              long callbackId, long callbackId2,
                                                              unsigned long signal) {
    const RecursiveMutexLock lock(m_observers.mutex());
    const int32_t result =
        m_observers.add(&observer, callbackId, callbackId2, static_cast<uint32_t>(signal));
    if (result != 0)
        ZANT_TRACE_STREAM(
            TRACEUNIT_OBSERVER, TRACELEVEL_ERROR,
            "CObservableCallbackFunction::Function already registered. this = " << this << '\n');
    else
        ZANT_TRACE_STREAM(TRACEUNIT_OBSERVER, TRACELEVEL_INFO,
                          "CObservableCallbackFunction::RegisterCallbackFunction() called. this = "
                              << this << '\n');
    return result;
}

int32_t CObservableCallbackFunction::RegisterCallbackFunction(CObserverCallbackFunction* observer,
                                                              long callbackId, long callbackId2,
                                                              unsigned long signal) {
    if (observer)
        return RegisterCallbackFunction(*observer, callbackId, callbackId2, signal);
    ZANT_TRACE_STREAM(
        TRACEUNIT_OBSERVER, TRACELEVEL_ERROR,
        "CObservableCallbackFunction::RegisterCallbackFunction() - No observer given. "
        "this = "
            << this << '\n');
    return observerIllegal;
}

int32_t CObservableCallbackFunction::UnregisterCallbackFunction(CObserverCallbackFunction& observer,
                                                                unsigned long signal) {
    const RecursiveMutexLock lock(m_observers.mutex());
    return m_observers.remove(&observer, static_cast<uint32_t>(signal));
}

void CObservableCallbackFunction::DeleteObserversWithCallbackFunction() {
    const RecursiveMutexLock lock(m_observers.mutex());
    m_observers.clear();
}

int32_t CObservableCallbackFunction::CountObserversWithCallbackFunction(unsigned long signal) {
    const RecursiveMutexLock lock(m_observers.mutex());
    return CountObserversForThisMsg(signal);
}

int32_t CObservableCallbackFunction::CountObserversForThisMsg(unsigned long signal) {
    return m_observers.count(static_cast<uint32_t>(signal));
}

bool CObservableCallbackFunction::AlreadyRegisteredWithCallbackFunction(
    CObserverCallbackFunction& observer, unsigned long signal) {
    const RecursiveMutexLock lock(m_observers.mutex());
    return AlreadyRegisteredWithCallbackFunctionNoMutex(observer, signal);
}

bool CObservableCallbackFunction::AlreadyRegisteredWithCallbackFunctionNoMutex(
    CObserverCallbackFunction& observer, unsigned long signal) {
    return m_observers.contains(&observer, static_cast<uint32_t>(signal));
}

int32_t CObservableCallbackFunction::NotifyObserversWithCallbackFunction(CZantMsg* msg) {
    if (!msg)
        return observerIllegal;
    const RecursiveMutexLock lock(m_observers.mutex());
    const int32_t nrOfObservers = CountObserversForThisMsg(msg->signalId);
    ZANT_TRACE_STREAM(
        TRACEUNIT_OBSERVER, TRACELEVEL_INFO,
        "ObservableCallbackFunction::NotifyObserversWithCallbackFunction() called. Nr "
        "of msgs to send = "
            << nrOfObservers << '\n');
    if (nrOfObservers >= 2 && payloadHasNoSize(*msg)) {
        ZANT_TRACE(TRACEUNIT_OBSERVER, TRACELEVEL_FATAL,
                   "==== FATAL ERROR ==== CObservableCallbackFunction::Signal size is not set - "
                   "required to support msgs with signals to multiple observers\n");
        msg->FreeSignal();
        return observerIllegal;
    }
    return m_observers.notify(*msg, [](const auto& record, CZantMsg& delivered) {
        ZANT_TRACE_STREAM(
            TRACEUNIT_OBSERVER, TRACELEVEL_INFO,
            "ObservableCallbackFunction::NotifyObserversWithCallbackFunction() - sending msg "
            "(Reference = "
                << record.observer
                << ") : Signal = " << GetSignalIdNamePtr(static_cast<SignalIds>(delivered.signalId))
                << ", SignalPtr = " << delivered.signalPtr << ", CallbackId = " << record.callbackId
                << ", CallbackId2 = " << record.callbackId2 << '\n');
        record.observer->CallbackFunction(&delivered);
        totalNrOfFunctionCallbacks.fetch_add(1, std::memory_order_relaxed);
        return 0;
    });
}
