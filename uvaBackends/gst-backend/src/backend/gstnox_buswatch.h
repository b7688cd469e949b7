#ifndef GSTNOX_BUSWATCH_H
#define GSTNOX_BUSWATCH_H

#include "base/glib_lock.h"

#include <gst/gst.h>

#include <functional>
#include <memory>
#include <utility>

/// The watch on a pipeline's bus, dispatched on the thread of the default main context. Removing a
/// GLib source does not wait for a dispatch under way; remove() does, so that the handler is not
/// used any more once it has returned.
class GstNoxBusWatch {
public:
    /// What it throws is logged.
    using Handler = std::function<void(GstMessage*)>;

    /// A watch that hands each message to the handler, but those that are of no use to it: they are
    /// dropped on the thread that posts them and wake nobody up, nine of ten while a pipeline
    /// starts.
    static std::shared_ptr<GstNoxBusWatch> add(GstBus* bus, Handler handler);

    /// No message is handed over any more, and none is being handled on another thread. On the
    /// dispatching thread itself it does not wait. Once.
    void remove(GstBus* bus) EXCLUDES(m_lock);

    // Callbacks of the bus; `watch` is a share of the watch. Any thread; "gst_run".
    static GstBusSyncReply _sift_message(GstBus* bus, GstMessage* message,
                                         gpointer unused) noexcept;
    static gboolean _handle_message(GstBus* bus, GstMessage* message, gpointer watch) noexcept;

private:
    explicit GstNoxBusWatch(Handler handler) : m_handler(std::move(handler)) {}
    bool handle(GstMessage* message) EXCLUDES(m_lock);

    const Handler m_handler;
    GLibMutex m_lock; // not held while a message is handled
    GLibCondition m_idle;
    bool m_isRemoved GUARDED_BY(m_lock) = false;
    GThread* m_dispatcher GUARDED_BY(m_lock) = nullptr; // who is handling a message
};

#endif
