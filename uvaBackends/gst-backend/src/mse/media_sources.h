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

    /// A thread that writes to a source, where it may decrypt, or makes a request for data, which the
    /// client may answer at once. Neither the source nor the backend goes before a writer has left.
    class Visit {
    public:
        enum Purpose { Write, Request };
        Visit(MediaSources& sources, Purpose purpose, const GstMseBin* source = nullptr);
        ~Visit();
        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;

    private:
        friend class MediaSources;
        bool isAnother(Purpose purpose) const {
            return m_purpose == purpose && m_thread != g_thread_self();
        }

        MediaSources& m_sources;
        const Purpose m_purpose;
        const GstMseBin* const m_source;
        GThread* const m_thread;
    };
    /// Waits until no other thread writes, to this source or to any (null).
    void waitForWriters(const GstMseBin* source) EXCLUDES(m_lock);
    /// Waits until the client has heard of what other threads ask for; half a second at most, since it
    /// may be waiting for this thread there.
    void waitForRequests() EXCLUDES(m_lock);

private:
    template <typename Predicate>
    bool has(Predicate predicate) const REQUIRES(m_lock);

    GLibMutex m_lock; // a leaf
    GLibCondition m_visitEnded;
    std::map<unsigned int, Source> m_sources GUARDED_BY(m_lock);
    std::vector<const Visit*> m_visits GUARDED_BY(m_lock);
};

#endif
