#ifndef MESSAGING_OBSERVABLE_CALLBACK_QUEUE_H
#define MESSAGING_OBSERVABLE_CALLBACK_QUEUE_H

#include "messaging/observer/observer_list.h"

#include <atomic>
#include <cstdint>

/// Fans a message out to the queues that registered for its signal, 0 standing for every signal.
/// Thread-safe; operations on one observable come one after the other. Results are 0 or an
/// ObserverCode.
class CObservableCallbackQueue {
public:
    CObservableCallbackQueue() = default;
    virtual ~CObservableCallbackQueue() = default;
    CObservableCallbackQueue(const CObservableCallbackQueue&) = delete;
    CObservableCallbackQueue& operator=(const CObservableCallbackQueue&) = delete;

    /// Refuses handle 0, a queue that blocks (a notifier never waits on an observer), and a queue
    /// that is registered for this signal already.
    virtual int32_t RegisterCallbackQueue(int queue, long callbackId, long callbackId2,
                                          unsigned long signal);
    /// Ends what a registration with this signal began; others of the same observer stay.
    virtual int32_t UnregisterCallbackQueue(int queue, unsigned long signal);
    /// Ends all registrations.
    virtual void DeleteObserversWithCallbackQueue();
    /// How many get a message with this signal.
    virtual int32_t CountObserversWithCallbackQueue(unsigned long signal);
    /// Whether it is registered for exactly this signal.
    virtual bool AlreadyRegisteredWithCallbackQueue(int queue, unsigned long signal);
    /// Sends the message to all that want it, with their callback ids in `param2` and `param3`. The
    /// message has no payload afterwards. 0, or the code of the last send that failed.
    virtual int32_t NotifyObserversWithCallbackQueue(CZantMsg* msg);

    ///@{
    /// For a caller that has locked the observers.
    int32_t CountObserversForThisMsg(unsigned long signal) REQUIRES(m_observers.mutex()) {
        return m_observers.count(signal);
    }
    bool AlreadyRegisteredWithCallbackQueueNoMutex(int queue, unsigned long signal)
        REQUIRES(m_observers.mutex()) {
        return m_observers.contains(queue, signal);
    }
    ///@}

    ///@{
    /// Deliveries of the process.
    static uint32_t GetTotalNrOfQueueCallbacks() { return totalNrOfQueueCallbacks; }
    static void ClearTotalNrOfQueueCallbacks() { totalNrOfQueueCallbacks = 0; }
    ///@}

private:
    static const ObserverList::Form form;

    ObserverList m_observers{this, form};
    static std::atomic<uint32_t> totalNrOfQueueCallbacks;
};

#endif
