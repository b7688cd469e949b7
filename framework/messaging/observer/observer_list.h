#ifndef MESSAGING_OBSERVER_LIST_H
#define MESSAGING_OBSERVER_LIST_H

#include "messaging/queue/zant_msg.h"
#include "util/recursive_mutex.h"

#include <algorithm>
#include <cstdint>
#include <list>
#include <vector>

/// Results of registering an observer.
enum ObserverCode : int32_t {
    observerIllegal = -1310,
    observerBlocking = -1311,
    observerKnown = -1312,
    observerUnknown = -1313
};

/// The observers of an observable, in the order of their registration; what its queue and function
/// forms have in common. Thread-safe. The mutex is the observable's: it serialises registration,
/// counting and notification. A notified observer may register and unregister from within.
template <typename Observer>
class ObserverList {
public:
    struct Record {
        Observer observer;
        int32_t callbackId;
        int32_t callbackId2;
        /// The wanted signal, 0 for all.
        uint32_t signalFilter;
        /// Tells a record from a later one of the same observer.
        uint64_t serial;

        bool wants(uint32_t signal) const { return signalFilter == 0 || signalFilter == signal; }
    };

    RecursiveMutex& mutex() RETURN_CAPABILITY(m_mutex) { return m_mutex; }

    bool contains(Observer observer, uint32_t signal) const REQUIRES(m_mutex) {
        return std::any_of(m_records.begin(), m_records.end(), [=](const Record& record) {
            return record.observer == observer && record.signalFilter == signal;
        });
    }

    int32_t add(Observer observer, long callbackId, long callbackId2, uint32_t signal)
        REQUIRES(m_mutex) {
        if (contains(observer, signal))
            return observerKnown;
        m_records.push_back({observer, static_cast<int32_t>(callbackId),
                             static_cast<int32_t>(callbackId2), signal, ++m_lastSerial});
        return 0;
    }

    int32_t remove(Observer observer, uint32_t signal) REQUIRES(m_mutex) {
        const size_t before = m_records.size();
        m_records.remove_if([=](const Record& record) {
            return record.observer == observer && record.signalFilter == signal;
        });
        return m_records.size() < before ? 0 : observerUnknown;
    }

    void clear() REQUIRES(m_mutex) { m_records.clear(); }

    int32_t count(uint32_t signal) const REQUIRES(m_mutex) {
        return static_cast<int32_t>(
            std::count_if(m_records.begin(), m_records.end(),
                          [signal](const Record& record) { return record.wants(signal); }));
    }

    /// Delivers the message to all that want it: copies to all but the last, which gets the message
    /// itself. `deliver(record, message)` returns 0 or a code; the last code that is not 0 is the
    /// result. The message has no payload left afterwards.
    template <typename Deliver>
    int32_t notify(CZantMsg& msg, Deliver deliver) REQUIRES(m_mutex) {
        std::vector<Record> wanting;
        std::copy_if(m_records.begin(), m_records.end(), std::back_inserter(wanting),
                     [&msg](const Record& record) { return record.wants(msg.signalId); });
        int32_t result = 0;
        for (const Record& record : wanting) {
            if (!isRegistered(record))
                continue; // went away when an observer before it was notified
            CZantMsg copy;
            const bool isLast = &record == &wanting.back();
            if (!isLast)
                copy.CopyMsg(msg);
            CZantMsg& delivered = isLast ? msg : copy;
            delivered.param2 = record.callbackId;
            delivered.param3 = record.callbackId2;
            if (const int32_t failed = deliver(record, delivered))
                result = failed;
        }
        msg.FreeSignal();
        return result;
    }

private:
    bool isRegistered(const Record& wanted) const REQUIRES(m_mutex) {
        return std::any_of(m_records.begin(), m_records.end(), [&wanted](const Record& record) {
            return record.serial == wanted.serial;
        });
    }

    mutable RecursiveMutex m_mutex;
    std::list<Record> m_records GUARDED_BY(m_mutex);
    uint64_t m_lastSerial GUARDED_BY(m_mutex) = 0;
};

/// True when the payload can not be copied, for want of its size.
inline bool payloadHasNoSize(const CZantMsg& msg) {
    return msg.signalPtr && msg.signalSize == 0;
}

#endif
