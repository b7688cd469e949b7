#ifndef MESSAGING_OBSERVER_LIST_H
#define MESSAGING_OBSERVER_LIST_H

#include "messaging/queue/zant_msg.h"
#include "util/mutex.h"

#include <cstdint>
#include <list>

/// Results of registering an observer.
enum ObserverCode : int32_t {
    observerIllegal = -1310,
    observerBlocking = -1311,
    observerKnown = -1312,
    observerUnknown = -1313
};

/// The observers of an observable, in the order of their registration; what its queue and function
/// forms have in common. Thread-safe: operations come one after the other, a notified observer may
/// register and unregister from within.
class ObserverList {
public:
    struct Record {
        /// A queue's handle, or the address of an object.
        intptr_t observer;
        int32_t callbackId;
        int32_t callbackId2;
        /// The wanted signal, 0 for all.
        uint32_t signalFilter;
        /// Tells a record from a later one of the same observer.
        uint64_t serial;

        bool wants(uint32_t signal) const { return signalFilter == 0 || signalFilter == signal; }
    };
    /// What one form does its own way.
    struct Form {
        /// Delivers a message to an observer: 0, or a code.
        int32_t (*deliver)(const Record& record, CZantMsg& msg);
        const char* registered;
        const char* alreadyRegistered;
        const char* notified;
        const char* sizeless;
    };

    /// `observable` is for traces.
    ObserverList(const void* observable, const Form& form)
        : m_observable(observable), m_form(form) {}

    Mutex& mutex() RETURN_CAPABILITY(m_mutex) { return m_mutex; }

    bool contains(intptr_t observer, unsigned long signal) const;
    int32_t add(intptr_t observer, long callbackId, long callbackId2, unsigned long signal);
    int32_t remove(intptr_t observer, unsigned long signal);
    void clear();
    /// How many want this signal.
    int32_t count(unsigned long signal) const;

    /// Delivers the message to all that want it: copies to all but the last, which gets the message
    /// itself. The last code that is not 0 is the result. The message has no payload left
    /// afterwards.
    int32_t notify(CZantMsg* msg);

private:
    bool isRegistered(const Record& wanted) const REQUIRES(m_mutex);
    int32_t deliverToAll(CZantMsg& msg) REQUIRES(m_mutex);

    const void* const m_observable;
    const Form& m_form;
    mutable Mutex m_mutex{Mutex::Recursive()};
    std::list<Record> m_records GUARDED_BY(m_mutex);
    uint64_t m_lastSerial GUARDED_BY(m_mutex) = 0;
};

/// True when the payload can not be copied, for want of its size.
inline bool payloadHasNoSize(const CZantMsg& msg) {
    return msg.signalPtr && msg.signalSize == 0;
}

#endif
