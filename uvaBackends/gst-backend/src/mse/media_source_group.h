#ifndef MEDIA_SOURCE_GROUP_H
#define MEDIA_SOURCE_GROUP_H

#include "base/glib_lock.h"
#include "base/gst_ptr.h"

#include <gst/gst.h>

#include <atomic>
#include <memory>

class UVADRMBackend;

/// What the media sources of one backend share: where their segments begin, and the key system.
/// Thread-safe.
class MediaSourceGroup {
public:
    /// What the host has set. Immutable.
    struct KeySystem {
        MallocText id; ///< null: none
        gint32 value = 0;
        guint64 client = 0;
        UVADRMBackend* drm = nullptr; ///< the host's, by the identifier; null: it has none
    };

    /// The first start becomes that of all segments; later callers get it back. Nanoseconds.
    guint64 agreeOnStart(guint64 start) {
        const GLibLock lock(m_lock);
        if (m_segmentStart == GST_CLOCK_TIME_NONE)
            m_segmentStart = start;
        return m_segmentStart;
    }
    void forgetStart() {
        const GLibLock lock(m_lock);
        m_segmentStart = GST_CLOCK_TIME_NONE;
    }

    void setKeySystem(std::shared_ptr<const KeySystem> next) {
        const GLibLock lock(m_lock);
        m_client = next->client;
        m_keySystem.swap(next);
    }
    /// Null until one is set.
    std::shared_ptr<const KeySystem> keySystem() {
        const GLibLock lock(m_lock);
        return m_keySystem;
    }
    /// The key system's, 0 until one is set. Without the lock: asked for every sample.
    guint64 client() const { return m_client; }

private:
    GLibMutex m_lock; // a leaf
    guint64 m_segmentStart GUARDED_BY(m_lock) = GST_CLOCK_TIME_NONE;
    std::shared_ptr<const KeySystem> m_keySystem GUARDED_BY(m_lock);
    std::atomic<guint64> m_client{0};
};

#endif
