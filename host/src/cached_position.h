#ifndef HOST_CACHED_POSITION_H
#define HOST_CACHED_POSITION_H

#include "locks/mutex.h"

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
    /// A seek is asked for: it is its target until the loop has taken that up.
    std::uint64_t ask(double target) {
        const locks::Lock lock(m_mutex);
        if (std::isfinite(target))
            m_seconds = target;
        return ++m_asked;
    }
    /// ... up to this seek.
    void set(double seconds, std::uint64_t taken) {
        const locks::Lock lock(m_mutex);
        if (taken == m_asked)
            m_seconds = seconds;
    }

private:
    mutable locks::Mutex m_mutex; // nothing is called under it
    double m_seconds GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_asked GUARDED_BY(m_mutex) = 0;
};

} // namespace host

#endif
