#include "backend/gstnox_buswatch.h"

#include "backend/gstnox_backend.h"

std::shared_ptr<GstNoxBusWatch> GstNoxBusWatch::add(GstBus* bus, GstNoxBackend* backend) {
    const std::shared_ptr<GstNoxBusWatch> watch(new GstNoxBusWatch(backend));
    // GLib keeps a share of its own until the source is gone, which may be after remove().
    gst_bus_set_sync_handler(bus, GstNoxBackend::_sift_message, nullptr, nullptr);
    gst_bus_add_watch_full(
        bus, G_PRIORITY_DEFAULT, dispatch, new std::shared_ptr<GstNoxBusWatch>(watch),
        [](gpointer share) { delete static_cast<std::shared_ptr<GstNoxBusWatch>*>(share); });
    return watch;
}

void GstNoxBusWatch::remove(GstBus* bus) {
    gst_bus_remove_watch(bus);
    const GLibLock lock(m_lock);
    m_backend = nullptr;
    while (m_dispatcher != nullptr && m_dispatcher != g_thread_self())
        m_idle.wait(m_lock);
}

gboolean GstNoxBusWatch::dispatch(GstBus* bus, GstMessage* message, gpointer watch) {
    const auto self = *static_cast<std::shared_ptr<GstNoxBusWatch>*>(watch);
    return self->handle(bus, message);
}

gboolean GstNoxBusWatch::handle(GstBus* bus, GstMessage* message) {
    GstNoxBackend* backend = nullptr;
    {
        const GLibLock lock(m_lock);
        if (m_backend == nullptr)
            return G_SOURCE_REMOVE;
        backend = m_backend;
        m_dispatcher = g_thread_self();
    }
    const gboolean keep = GstNoxBackend::_handle_message(bus, message, backend);
    const GLibLock lock(m_lock);
    m_dispatcher = nullptr;
    m_idle.broadcast(m_lock);
    return keep;
}
