#include "request_gate.h"

#include "gst_ptr.h"

namespace noxelements {

namespace {

using GateRef = std::shared_ptr<RequestGate>;

GstPtr<GstObject> topLevel(GstElement* element) {
    GstPtr<GstObject> top(GST_OBJECT(gst_object_ref(element)));
    while (GstObject* parent = gst_object_get_parent(top.get()))
        top.reset(parent);
    return top;
}

} // namespace

std::shared_ptr<RequestGate> RequestGate::of(GstElement* element) {
    static const GQuark key = g_quark_from_static_string("nox-request-gate");
    const auto top = topLevel(element);
    auto* object = G_OBJECT(top.get());
    GST_OBJECT_LOCK(object);
    auto* held = static_cast<GateRef*>(g_object_get_qdata(object, key));
    if (!held) {
        held = new GateRef(std::make_shared<RequestGate>());
        g_object_set_qdata_full(object, key, held,
                                [](gpointer gate) { delete static_cast<GateRef*>(gate); });
    }
    GateRef gate = *held;
    GST_OBJECT_UNLOCK(object);
    return gate;
}

void RequestGate::leave() {
    {
        const locks::Lock lock(m_mutex);
        m_busy = false;
    }
    m_changed.notify_all();
}

void RequestGate::wake() {
    // Taking the lock orders the caller's change of the condition before the waiter's next look.
    { const locks::Lock lock(m_mutex); }
    m_changed.notify_all();
}

} // namespace noxelements
