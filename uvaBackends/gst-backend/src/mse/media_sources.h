#ifndef MEDIA_SOURCES_H
#define MEDIA_SOURCES_H

#include "base/glib_lock.h"
#include "mse/gstnox_msebin.h"

#include <map>
#include <memory>
#include <vector>

/// The media sources of a backend by their ids, and who is writing to them. Thread-safe.
class MediaSources {
public:
    using Source = std::shared_ptr<GstMseBin>;

    /// In place of the one with its id.
    void add(const Source& source) EXCLUDES(m_lock);
    /// Null when there is none.
    Source find(unsigned int id) EXCLUDES(m_lock);
    Source take(unsigned int id) EXCLUDES(m_lock);
    std::vector<Source> all() EXCLUDES(m_lock);

    /// A thread that writes to a source, where it may decrypt. Neither the source nor the backend
    /// goes before it has left.
    class Writer {
    public:
        Writer(MediaSources& sources, const GstMseBin& writtenTo);
        ~Writer();
        Writer(const Writer&) = delete;
        Writer& operator=(const Writer&) = delete;

    private:
        friend class MediaSources;
        MediaSources& m_sources;
        const GstMseBin* const m_writtenTo;
        GThread* const m_thread;
    };
    /// Waits until no other thread writes, to this source or to any (null).
    void waitForWriters(const GstMseBin* source) EXCLUDES(m_lock);

private:
    GLibMutex m_lock; // a leaf
    GLibCondition m_writerLeft;
    std::map<unsigned int, Source> m_sources GUARDED_BY(m_lock);
    std::vector<const Writer*> m_writers GUARDED_BY(m_lock);
};

#endif
