#include "messaging/observer/observable_callback_function.h"

#include "debug/trace/zant_trace.h"

std::atomic<uint32_t> CObservableCallbackFunction::totalNrOfFunctionCallbacks{0};

const ObserverList::Form CObservableCallbackFunction::form = {
    [](const ObserverList::Record& record, CZantMsg& delivered) {
        auto* const observer = reinterpret_cast<CObserverCallbackFunction*>(record.observer);
        ZANT_TRACE_STREAM(
            TRACEUNIT_OBSERVER, TRACELEVEL_INFO,
            "ObservableCallbackFunction::NotifyObserversWithCallbackFunction() - sending msg "
            "(Reference = "
                << observer << ") : Signal = " << delivered.signalName()
                << ", SignalPtr = " << delivered.signalPtr << ", CallbackId = " << record.callbackId
                << ", CallbackId2 = " << record.callbackId2 << '\n');
        observer->CallbackFunction(&delivered);
        totalNrOfFunctionCallbacks.fetch_add(1, std::memory_order_relaxed);
        return 0;
    },
    "CObservableCallbackFunction::RegisterCallbackFunction() called. this = ",
    "CObservableCallbackFunction::Function already registered. this = ",
    "ObservableCallbackFunction::NotifyObserversWithCallbackFunction() called. Nr of msgs to send "
    "= ",
    "==== FATAL ERROR ==== CObservableCallbackFunction::Signal size is not set - required to "
    "support msgs with signals to multiple observers\n"};

int32_t CObservableCallbackFunction::RegisterCallbackFunction(CObserverCallbackFunction& observer,
                                                              long callbackId, long callbackId2,
                                                              unsigned long signal) {
    return m_observers.add(key(&observer), callbackId, callbackId2, signal);
}

int32_t CObservableCallbackFunction::RegisterCallbackFunction(CObserverCallbackFunction* observer,
                                                              long callbackId, long callbackId2,
                                                              unsigned long signal) {
    if (observer)
        return RegisterCallbackFunction(*observer, callbackId, callbackId2, signal);
    ZANT_TRACE_STREAM(
        TRACEUNIT_OBSERVER, TRACELEVEL_ERROR,
        "CObservableCallbackFunction::RegisterCallbackFunction() - No observer given. this = "
            << this << '\n');
    return observerIllegal;
}

int32_t CObservableCallbackFunction::UnregisterCallbackFunction(CObserverCallbackFunction& observer,
                                                                unsigned long signal) {
    return m_observers.remove(key(&observer), signal);
}

void CObservableCallbackFunction::DeleteObserversWithCallbackFunction() {
    m_observers.clear();
}

int32_t CObservableCallbackFunction::CountObserversWithCallbackFunction(unsigned long signal) {
    return m_observers.count(signal);
}

bool CObservableCallbackFunction::AlreadyRegisteredWithCallbackFunction(
    CObserverCallbackFunction& observer, unsigned long signal) {
    return m_observers.contains(key(&observer), signal);
}

int32_t CObservableCallbackFunction::NotifyObserversWithCallbackFunction(CZantMsg* msg) {
    return m_observers.notify(msg);
}
