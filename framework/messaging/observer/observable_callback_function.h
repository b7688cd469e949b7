#ifndef MESSAGING_OBSERVABLE_CALLBACK_FUNCTION_H
#define MESSAGING_OBSERVABLE_CALLBACK_FUNCTION_H

#include "messaging/observer/observer_list.h"

#include <atomic>
#include <cstdint>

/// Is called with the messages that it registered for.
class CObserverCallbackFunction {
public:
    virtual ~CObserverCallbackFunction() = default;
    /// Runs on the notifying thread, with the observable locked: it may register and unregister
    /// there, and must not wait for another thread that does. The payloads are freed afterwards; to
    /// keep one, take it and clear the message's field.
    virtual void CallbackFunction(CZantMsg* msg) = 0;
};

/// Fans a message out to the objects that registered for its signal, 0 standing for every signal.
/// Thread-safe; operations on one observable come one after the other. Results are 0 or an
/// ObserverCode. An observer unregisters before it goes.
class CObservableCallbackFunction {
public:
    CObservableCallbackFunction() = default;
    virtual ~CObservableCallbackFunction() = default;
    CObservableCallbackFunction(const CObservableCallbackFunction&) = delete;
    CObservableCallbackFunction& operator=(const CObservableCallbackFunction&) = delete;

    ///@{
    /// Refuse a null pointer and an observer that is registered for this signal already.
    virtual int32_t RegisterCallbackFunction(CObserverCallbackFunction& observer, long callbackId,
                                             long callbackId2, unsigned long signal);
    virtual int32_t RegisterCallbackFunction(CObserverCallbackFunction* observer, long callbackId,
                                             long callbackId2, unsigned long signal);
    ///@}
    /// Ends what a registration with this signal began; others of the same observer stay.
    virtual int32_t UnregisterCallbackFunction(CObserverCallbackFunction& observer,
                                               unsigned long signal);
    /// Ends all registrations.
    virtual void DeleteObserversWithCallbackFunction();
    /// How many get a message with this signal.
    virtual int32_t CountObserversWithCallbackFunction(unsigned long signal);
    /// Whether it is registered for exactly this signal.
    virtual bool AlreadyRegisteredWithCallbackFunction(CObserverCallbackFunction& observer,
                                                       unsigned long signal);
    /// Calls all that want the message, with their callback ids in `param2` and `param3`. The
    /// message has no payload afterwards.
    virtual int32_t NotifyObserversWithCallbackFunction(CZantMsg* msg);

    ///@{
    /// For a caller that has locked the observers.
    int32_t CountObserversForThisMsg(unsigned long signal) REQUIRES(m_observers.mutex()) {
        return m_observers.count(signal);
    }
    bool AlreadyRegisteredWithCallbackFunctionNoMutex(CObserverCallbackFunction& observer,
                                                      unsigned long signal)
        REQUIRES(m_observers.mutex()) {
        return m_observers.contains(key(&observer), signal);
    }
    ///@}

    ///@{
    /// Deliveries of the process.
    static uint32_t GetTotalNrOfFunctionCallbacks() { return totalNrOfFunctionCallbacks; }
    static void ClearTotalNrOfFunctionCallbacks() { totalNrOfFunctionCallbacks = 0; }
    ///@}

private:
    static intptr_t key(CObserverCallbackFunction* observer) {
        return reinterpret_cast<intptr_t>(observer);
    }
    static const ObserverList::Form form;

    ObserverList m_observers{this, form};
    static std::atomic<uint32_t> totalNrOfFunctionCallbacks;
};

#endif
