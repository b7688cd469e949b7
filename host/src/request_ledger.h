#ifndef HOST_REQUEST_LEDGER_H
#define HOST_REQUEST_LEDGER_H

#include "host/media_element.h"
#include "locks/mutex.h"

#include <cstdint>
#include <map>
#include <set>

namespace host {

/// Whether each request of a backend for samples is answered once. Requests come on any thread;
/// they are noted where they arrive, and answers just before they are given: a request that comes
/// from inside an answer is the next one. Thread-safe.
class RequestLedger {
public:
    /// Of a request, within its source; from 1.
    using Number = std::uint64_t;

    /// A source asks. It does so once, until it is given something, told of its end, or everything
    /// it has asked for is void. Behind what it was given it may ask once more, which makes the
    /// first void: it can run dry while the last of that is on its way, and again when it is used
    /// up.
    Number ask(SourceId source, Clock::time_point now);
    /// Samples are about to be written for a request. For one that is void they may be.
    void answer(SourceId source, Number request);
    /// The source is about to be told of its end, which answers what it has asked for. A request
    /// behind that is left alone.
    void end(SourceId source);

    /// What a source has asked for is void: it was removed.
    void revoke(SourceId source);
    /// ... what all have: a seek begins, behind which one that is on its way may still come, or
    /// playback is over. What has been open for longer than
    /// `patience` was never answered, unless its source is `excused`: there was nothing to write.
    void revokeAll(Clock::time_point now, Clock::duration patience,
                   const std::set<SourceId>& excused);

    RequestCounts counts() const;

private:
    struct Source {
        Number newest = 0;
        Number voidUpTo = 0;
        bool isOpen = false; // the newest
        bool hasEnded = false;
        unsigned int asksLeft = 1; // before it is given something
        Clock::time_point since;   // it is open
    };
    static void makeVoid(Source& source);
    void settle(Source& source) REQUIRES(m_mutex);

    mutable locks::Mutex m_mutex; // a leaf
    std::map<SourceId, Source> m_sources GUARDED_BY(m_mutex);
    RequestCounts m_counts GUARDED_BY(m_mutex);
};

} // namespace host

#endif
