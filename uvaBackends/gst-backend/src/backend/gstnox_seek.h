#ifndef GSTNOX_SEEK_H
#define GSTNOX_SEEK_H

#include "base/glib_lock.h"

#include <gst/gst.h>

#include <optional>

/// Where playback is, and where a seek is to take it. While a seek is pending or being made the
/// position is its target. Nanoseconds, GST_CLOCK_TIME_NONE is nowhere yet. Thread-safe.
class SeekState {
public:
    /// A seek is to be made; it takes the place of one that is pending.
    void request(guint64 target) {
        const GLibLock lock(m_lock);
        m_phase = Phase::Pending;
        m_position = target;
    }
    /// The target of the pending seek, which end() must follow; none when there is none.
    std::optional<guint64> begin() {
        const GLibLock lock(m_lock);
        if (m_phase != Phase::Pending)
            return std::nullopt;
        m_phase = Phase::Made;
        return m_position;
    }
    /// Another one may be pending by now.
    void end() {
        const GLibLock lock(m_lock);
        if (m_phase == Phase::Made)
            m_phase = Phase::None;
    }
    /// What the pipeline says; not while a seek is pending or being made.
    void note(guint64 position) {
        const GLibLock lock(m_lock);
        if (m_phase == Phase::None)
            m_position = position;
    }
    guint64 position() {
        const GLibLock lock(m_lock);
        return m_position;
    }

private:
    enum class Phase { None, Pending, Made };

    GLibMutex m_lock; // a leaf
    Phase m_phase GUARDED_BY(m_lock) = Phase::None;
    guint64 m_position GUARDED_BY(m_lock) = GST_CLOCK_TIME_NONE;
};

#endif
