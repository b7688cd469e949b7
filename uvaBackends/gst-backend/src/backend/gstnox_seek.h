#ifndef GSTNOX_SEEK_H
#define GSTNOX_SEEK_H

#include "base/glib_lock.h"
#include "timeline/timeline.h"

#include <gst/gst.h>

#include <optional>

/// Where playback is, and where a seek is to take it. While a seek is pending or being made the
/// position is its target. Nanoseconds, GST_CLOCK_TIME_NONE is nowhere yet. Thread-safe.
class SeekState {
public:
    enum class Phase { None, Pending, Made };
    struct Facts {
        Phase phase = Phase::None;
        guint64 position = GST_CLOCK_TIME_NONE;
        unsigned int requested = 0; ///< ever; one whose place another took is neither of these
        unsigned int succeeded = 0;
        unsigned int failed = 0;
    };

    /// A seek is to be made; it takes the place of one that is pending.
    void request(guint64 target) {
        const GLibLock lock(m_lock);
        if (m_facts.phase == Phase::Pending)
            recordEnd(m_pending, "another took its place");
        m_pending = recordBegin(target);
        ++m_facts.requested;
        m_facts.phase = Phase::Pending;
        m_facts.position = target;
    }
    /// The target of the pending seek, which end() must follow; none when there is none.
    std::optional<guint64> begin() {
        const GLibLock lock(m_lock);
        if (m_facts.phase != Phase::Pending)
            return std::nullopt;
        m_facts.phase = Phase::Made;
        m_made = m_pending;
        return m_facts.position;
    }
    /// A seek that is not made at all.
    void refuse() {
        const GLibLock lock(m_lock);
        recordEnd(recordBegin(m_facts.position), "refused");
        ++m_facts.requested;
        ++m_facts.failed;
    }
    /// Another one may be pending by now.
    void end(bool succeeded) {
        const GLibLock lock(m_lock);
        recordEnd(m_made, succeeded ? "succeeded" : "failed");
        ++(succeeded ? m_facts.succeeded : m_facts.failed);
        if (m_facts.phase == Phase::Made)
            m_facts.phase = Phase::None;
    }
    /// What the pipeline says; not while a seek is pending or being made.
    void note(guint64 position) {
        const GLibLock lock(m_lock);
        if (m_facts.phase == Phase::None)
            m_facts.position = position;
    }
    guint64 position() {
        const GLibLock lock(m_lock);
        return m_facts.position;
    }

    Facts facts() {
        const GLibLock lock(m_lock);
        return m_facts;
    }

private:
    /// In the time line from the request to the end. Its number there, 0: nobody records.
    static std::uint64_t recordBegin(guint64 target) {
        const std::uint64_t id = timeline::isOn() ? timeline::newId() : 0;
        if (id != 0)
            timeline::asyncBegin("seek", "seek", id).with("target_ns", target);
        return id;
    }
    static void recordEnd(std::uint64_t id, const char* outcome) {
        if (id != 0)
            timeline::asyncEnd("seek", "seek", id).with("outcome", outcome);
    }

    GLibMutex m_lock; // a leaf
    Facts m_facts GUARDED_BY(m_lock);
    std::uint64_t m_pending GUARDED_BY(m_lock) = 0; ///< of the time line, while there is one
    std::uint64_t m_made GUARDED_BY(m_lock) = 0;
};

#endif
