#include "backend/gstnox_firstbuffer.h"

#include "base/gst_ptr.h"

namespace {

using Pad = GstPtr<GstPad>;

using Element = GstPtr<GstElement>;

Pad sinkOf(const Element& element) {
    return Pad::adopt(element ? gst_element_get_static_pad(element.get(), "sink") : nullptr);
}

/// Who links a demuxer is called by the element in front of it, under the lock of that one's
/// stream. Data that is pushed comes from there itself; only who pulls can be ahead of it.
GstPadProbeReturn waitUntilLinked(GstPad* source, GstPadProbeInfo* /*info*/, gpointer /*data*/) {
    const auto sink = sinkOf(Element::adopt(gst_pad_get_parent_element(source)));
    if (!sink || GST_PAD_MODE(sink.get()) != GST_PAD_MODE_PULL)
        return GST_PAD_PROBE_REMOVE;
    const auto linked = Pad::adopt(gst_pad_get_peer(sink.get()));
    if (const auto inFront =
            sinkOf(Element::adopt(linked ? gst_pad_get_parent_element(linked.get()) : nullptr))) {
        GST_PAD_STREAM_LOCK(inFront.get());
        GST_PAD_STREAM_UNLOCK(inFront.get());
    }
    return GST_PAD_PROBE_REMOVE;
}

} // namespace

void holdFirstBufferUntilLinked(GstElement* demuxer) {
    if (const auto source = Pad::adopt(gst_element_get_static_pad(demuxer, "src")))
        gst_pad_add_probe(source.get(), GST_PAD_PROBE_TYPE_BUFFER, waitUntilLinked, nullptr,
                          nullptr);
}
