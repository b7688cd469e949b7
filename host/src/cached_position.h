#ifndef HOST_CACHED_POSITION_H
#define HOST_CACHED_POSITION_H

#include "locks/mutex.h"
#include "seek.h"

#include <cmath>
#include <cstdint>

namespace host {

/// Where playback is, for any thread.
class CachedPosition {
public:
    double get() const {
        const locks::Lock lock(m_mutex);
        return m_seconds;
    }
    /// A seek is asked for: it is where that leads until the loop has taken it up.
    std::uint64_t ask(double target) {
        const locks::Lock lock(m_mutex);
        if (std::isfinite(target))
            m_seconds = Seek::placeOf(target, m_duration);
        return ++m_asked;
    }
    /// ... up to this seek, in media of that length.
    void set(double seconds, double duration, std::uint64_t taken) {
        const locks::Lock lock(m_mutex);
        m_duration = duration;
        if (taken == m_asked)
            m_seconds = seconds;
    }

private:
    mutable locks::Mutex m_mutex; // nothing is called under it
    double m_seconds GUARDED_BY(m_mutex) = 0;
    double m_duration GUARDED_BY(m_mutex) = 0; // 0: unknown
    std::uint64_t m_asked GUARDED_BY(m_mutex) = 0;
};

} // namespace host

#endif
