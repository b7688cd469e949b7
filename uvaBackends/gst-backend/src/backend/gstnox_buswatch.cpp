#include "backend/gstnox_buswatch.h"

#include "base/gstnox_debug.h"
#include "timeline/timeline.h"

namespace {

/// On the thread that posts it.
void recordMessage(GstMessage* message) {
    auto event = timeline::instant("bus", GST_MESSAGE_TYPE_NAME(message));
    event.with("element", GST_MESSAGE_SRC_NAME(message));
    if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_STATE_CHANGED)
        return;
    GstState before = GST_STATE_VOID_PENDING;
    GstState now = GST_STATE_VOID_PENDING;
    gst_message_parse_state_changed(message, &before, &now, nullptr);
    event.with("before", gst_element_state_get_name(before));
    event.with("now", gst_element_state_get_name(now));
}

} // namespace

std::shared_ptr<GstNoxBusWatch> GstNoxBusWatch::add(GstBus* bus, Handler handler) {
    const std::shared_ptr<GstNoxBusWatch> watch(new GstNoxBusWatch(std::move(handler)));
    // GLib keeps a share of its own until the source is gone, which may be after remove().
    gst_bus_set_sync_handler(bus, _sift_message, nullptr, nullptr);
    gst_bus_add_watch_full(
        bus, G_PRIORITY_DEFAULT, _handle_message, new std::shared_ptr<GstNoxBusWatch>(watch),
        [](gpointer share) { delete static_cast<std::shared_ptr<GstNoxBusWatch>*>(share); });
    return watch;
}

void GstNoxBusWatch::remove(GstBus* bus) {
    gst_bus_remove_watch(bus);
    const GLibLock lock(m_lock);
    m_isRemoved = true;
    while (m_dispatcher != nullptr && m_dispatcher != g_thread_self())
        m_idle.wait(m_lock);
}

/// Of state changes only the pipeline's own are of use.
GstBusSyncReply GstNoxBusWatch::_sift_message(GstBus* /*bus*/, GstMessage* message,
                                              gpointer /*unused*/) noexcept {
    if (timeline::isOn())
        recordMessage(message);
    constexpr int handled = GST_MESSAGE_EOS | GST_MESSAGE_ERROR | GST_MESSAGE_BUFFERING |
                            GST_MESSAGE_STATE_CHANGED | GST_MESSAGE_APPLICATION;
    const bool ofPart = GST_MESSAGE_TYPE(message) == GST_MESSAGE_STATE_CHANGED &&
                        GST_MESSAGE_SRC(message) != nullptr &&
                        GST_OBJECT_PARENT(GST_MESSAGE_SRC(message)) != nullptr;
    if ((GST_MESSAGE_TYPE(message) & handled) != 0 && !ofPart)
        return GST_BUS_PASS;
    gst_message_unref(message); // who says "drop" owns it
    return GST_BUS_DROP;
}

gboolean GstNoxBusWatch::_handle_message(GstBus* /*bus*/, GstMessage* message,
                                         gpointer watch) noexcept {
    const auto self = *static_cast<std::shared_ptr<GstNoxBusWatch>*>(watch);
    return self->handle(message) ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

/// Whether the watch goes on.
bool GstNoxBusWatch::handle(GstMessage* message) {
    {
        const GLibLock lock(m_lock);
        if (m_isRemoved)
            return false;
        m_dispatcher = g_thread_self();
    }
    guarded("a message of the pipeline", [&] { m_handler(message); });
    const GLibLock lock(m_lock);
    m_dispatcher = nullptr;
    m_idle.broadcast(m_lock);
    return true;
}
