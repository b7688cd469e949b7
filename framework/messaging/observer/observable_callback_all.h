#ifndef MESSAGING_OBSERVABLE_CALLBACK_ALL_H
#define MESSAGING_OBSERVABLE_CALLBACK_ALL_H

#include "messaging/observer/observable_callback_function.h"
#include "messaging/observer/observable_callback_queue.h"

/// Fans a message out to queues and to objects. Thread-safe.
class CObservableCallbackAll : public CObservableCallbackQueue, public CObservableCallbackFunction {
public:
    /// Notifies the objects, then the queues. The message has no payload afterwards. 0, or the code
    /// of a delivery that failed.
    virtual int32_t NotifyObserversAll(CZantMsg* msg);
    /// How many get a message with this signal.
    virtual int32_t CountObserversAll(unsigned long signal);
};

#endif
