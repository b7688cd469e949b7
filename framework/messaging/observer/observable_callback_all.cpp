#include "messaging/observer/observable_callback_all.h"

#include "debug/trace/zant_trace.h"

int32_t CObservableCallbackAll::CountObserversAll(unsigned long signal) {
    return CountObserversWithCallbackFunction(signal) + CountObserversWithCallbackQueue(signal);
}

int32_t CObservableCallbackAll::NotifyObserversAll(CZantMsg* msg) {
    if (!msg)
        return observerIllegal;
    ZANT_TRACE(TRACEUNIT_OBSERVER, TRACELEVEL_INFO,
               "CObservableCallbackAll::NotifyObserversAll() called.\n");
    if (CountObserversAll(msg->signalId) >= 2 && payloadHasNoSize(*msg)) {
        ZANT_TRACE(
            TRACEUNIT_OBSERVER, TRACELEVEL_FATAL,
            "==== FATAL ERROR ==== CObservableCallbackAll::Signal size is not set - required "
            "to support callback all feature\n");
        msg->FreeSignal();
        return observerIllegal;
    }
    if (CountObserversWithCallbackFunction(msg->signalId) == 0)
        return NotifyObserversWithCallbackQueue(msg);
    if (CountObserversWithCallbackQueue(msg->signalId) == 0)
        return NotifyObserversWithCallbackFunction(msg);
    CZantMsg copy(*msg);
    const int32_t functionResult = NotifyObserversWithCallbackFunction(&copy);
    const int32_t queueResult = NotifyObserversWithCallbackQueue(msg);
    return queueResult != 0 ? queueResult : functionResult;
}
