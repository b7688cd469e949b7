#ifndef NOXELEMENTS_REQUEST_GATE_H
#define NOXELEMENTS_REQUEST_GATE_H

#include "locks/mutex.h"

#include <gst/gst.h>

#include <condition_variable>
#include <memory>

namespace noxelements {

/// Lets the sinks of one top-level pipeline ask for their decoder one after the other: a second one
/// that asked while the application is asking its client would be refused. Once the request has
/// gone on to the decoders' owner, the next may ask. Thread-safe.
class RequestGate {
public:
    /// The gate of the pipeline that the element is in.
    static std::shared_ptr<RequestGate> of(GstElement* element);

    /// Waits until nobody else is inside. False, and not inside, when `cancelled` holds; whoever
    /// makes it hold calls `wake`.
    template <typename Cancelled>
    bool enter(Cancelled cancelled) {
        locks::Lock lock(m_mutex);
        m_changed.wait(lock, [&]() REQUIRES(m_mutex) { return !m_busy || cancelled(); });
        if (cancelled())
            return false;
        m_busy = true;
        return true;
    }
    void leave();
    void wake();

private:
    locks::Mutex m_mutex; // leaf, but for the object locks that `cancelled` takes
    std::condition_variable m_changed;
    bool m_busy GUARDED_BY(m_mutex) = false;
};

} // namespace noxelements

#endif
