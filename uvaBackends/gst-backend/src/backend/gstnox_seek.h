#ifndef GSTNOX_SEEK_H
#define GSTNOX_SEEK_H

#include "base/glib_lock.h"

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
        return m_facts.position;
    }
    /// A seek that is not made at all.
    void refuse() {
        const GLibLock lock(m_lock);
        ++m_facts.requested;
        ++m_facts.failed;
    }
    /// Another one may be pending by now.
    void end(bool succeeded) {
        const GLibLock lock(m_lock);
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
    GLibMutex m_lock; // a leaf
    Facts m_facts GUARDED_BY(m_lock);
};

#endif
