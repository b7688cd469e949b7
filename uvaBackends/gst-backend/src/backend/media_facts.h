#ifndef MEDIA_FACTS_H
#define MEDIA_FACTS_H

#include "base/glib_lock.h"

#include <gst/gst.h>

#include <optional>

/// What is known of the media, and whether the client has been told. Thread-safe.
class MediaFacts {
public:
    static constexpr gint64 durationUninitialized = -2;
    static constexpr gint64 durationUnknown = -1;

    struct Size {
        int width = -1; ///< pixels
        int height = -1;
        double pixelAspectRatio = 1.0; ///< width of a pixel over its height
    };
    struct Metadata {
        Size size;
        double seconds = 0.0; ///< duration; 0 when it is not known
    };

    void setSize(int width, int height) EXCLUDES(m_lock);
    void setPixelAspectRatio(double ratio) EXCLUDES(m_lock);
    void setFrameRate(double framesPerSecond) EXCLUDES(m_lock);
    /// Nanoseconds, or one of the constants.
    void setDuration(gint64 duration) EXCLUDES(m_lock);
    /// A duration that is not known yet, or unknown, grows to this one.
    void growDuration(gint64 duration) EXCLUDES(m_lock);

    Size size() EXCLUDES(m_lock);
    gint64 duration() EXCLUDES(m_lock);
    /// What to tell the client; none when nothing has changed since it was told.
    std::optional<Metadata> takeChange() EXCLUDES(m_lock);

private:
    GLibMutex m_lock; // a leaf
    Size m_size GUARDED_BY(m_lock);
    double m_frameRate GUARDED_BY(m_lock) = 1.0;
    gint64 m_duration GUARDED_BY(m_lock) = durationUninitialized;
    bool m_hasChanged GUARDED_BY(m_lock) = false;
};

#endif
