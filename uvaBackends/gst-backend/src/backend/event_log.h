#ifndef EVENT_LOG_H
#define EVENT_LOG_H

#include "base/glib_lock.h"

#include <gst/gst.h>

#include <algorithm>
#include <array>
#include <vector>

/// The latest events that the client was told of. Thread-safe.
class EventLog {
public:
    struct Entry {
        guint64 number = 0; ///< from 1; 0: none
        int type = 0;       ///< UVAEvent's
        gint64 time = 0;    ///< of g_get_monotonic_time()
    };

    void note(int type) EXCLUDES(m_lock) {
        const gint64 now = g_get_monotonic_time();
        const GLibLock lock(m_lock);
        m_entries[m_count % kept] = {m_count + 1, type, now};
        ++m_count;
    }
    /// The oldest first.
    std::vector<Entry> entries() EXCLUDES(m_lock) {
        const GLibLock lock(m_lock);
        std::vector<Entry> entries;
        for (guint64 i = m_count - std::min(m_count, kept); i < m_count; ++i)
            entries.push_back(m_entries[i % kept]);
        return entries;
    }

private:
    static constexpr guint64 kept = 32;

    GLibMutex m_lock; // a leaf
    guint64 m_count GUARDED_BY(m_lock) = 0;
    std::array<Entry, kept> m_entries GUARDED_BY(m_lock);
};

#endif
