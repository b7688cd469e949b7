#ifndef GSTNOX_REGISTRY_H
#define GSTNOX_REGISTRY_H

#include "backend/gstnox_backend.h"
#include "base/glib_lock.h"

#include <algorithm>
#include <vector>

/// The backends of the process, for those who look into it. It outlives them all. Thread-safe.
class GstNoxBackend::Registry {
public:
    static Registry& instance();

    void add(GstNoxBackend& backend) EXCLUDES(m_lock) {
        const GLibLock lock(m_lock);
        m_backends.push_back(&backend);
    }
    /// Waits while the backend is being looked at.
    void remove(GstNoxBackend& backend) EXCLUDES(m_lock) {
        const GLibLock lock(m_lock);
        m_backends.erase(std::find(m_backends.begin(), m_backends.end(), &backend));
    }
    /// Calls with each backend, the oldest first. No backend goes meanwhile: it is to be short, and
    /// not to wait for GStreamer.
    template <typename Look>
    void forEach(Look look) EXCLUDES(m_lock) {
        const GLibLock lock(m_lock);
        for (auto* backend : m_backends)
            look(*backend);
    }

private:
    GLibMutex m_lock; // taken before a backend's own
    std::vector<GstNoxBackend*> m_backends GUARDED_BY(m_lock);
};

#endif
