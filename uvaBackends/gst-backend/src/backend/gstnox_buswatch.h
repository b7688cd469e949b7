#ifndef GSTNOX_BUSWATCH_H
#define GSTNOX_BUSWATCH_H

#include "base/glib_lock.h"

#include <gst/gst.h>

#include <memory>

class GstNoxBackend;

/// The watch on a pipeline's bus, dispatched on the thread of the default main context. Removing a
/// GLib source does not wait for a dispatch under way; remove() does, so that the backend is not
/// used any more once it has returned.
class GstNoxBusWatch : public std::enable_shared_from_this<GstNoxBusWatch> {
public:
    /// A watch that hands each message of the bus to the backend.
    static std::shared_ptr<GstNoxBusWatch> add(GstBus* bus, GstNoxBackend* backend);

    /// No message is handed over any more, and none is being handled on another thread. On the
    /// dispatching thread itself it does not wait. Once.
    void remove(GstBus* bus) EXCLUDES(m_lock);

private:
    explicit GstNoxBusWatch(GstNoxBackend* backend) : m_backend(backend) {}
    static gboolean dispatch(GstBus* bus, GstMessage* message, gpointer watch);
    gboolean handle(GstBus* bus, GstMessage* message) EXCLUDES(m_lock);

    GLibMutex m_lock; // not held while a message is handled
    GLibCondition m_idle;
    GstNoxBackend* m_backend GUARDED_BY(m_lock);        // null once removed
    GThread* m_dispatcher GUARDED_BY(m_lock) = nullptr; // who is handling a message
};

#endif
