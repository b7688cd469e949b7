#include "decode_chain.h"

#include "factories.h"
#include "timeline/timeline.h"

#include <gst/pbutils/pbutils.h>

#include <algorithm>

namespace noxelements {

namespace {

GstPtr<GstPad> sinkPadOf(GstElement* element) {
    return GstPtr<GstPad>(gst_element_get_static_pad(element, "sink"));
}

void recordUnderflow(GstElement*, gpointer bin) {
    timeline::instant("sink", "underflow").with("sink", GST_OBJECT_NAME(bin));
}

/// The bound in bytes is for data without times; a second of the fastest streams stays below it.
GstPtr<GstElement> makeBuffer(GstBin* bin) {
    constexpr guint64 time = GST_SECOND;
    constexpr guint bytes = 16U << 20U;
    auto buffer = sinkRef(gst_element_factory_make("queue", nullptr));
    if (buffer)
        g_object_set(buffer.get(), "max-size-time", time, "max-size-bytes", bytes,
                     "max-size-buffers", 0U, "silent", !timeline::isOn(), nullptr);
    if (buffer && timeline::isOn())
        g_signal_connect(buffer.get(), "underrun", G_CALLBACK(recordUnderflow), bin);
    return buffer;
}

void reportMissingDecoder(GstBin* bin, GstCaps* caps) {
    const GstPtr<char> name(gst_pb_utils_get_codec_description(caps));
    gst_element_post_message(GST_ELEMENT(bin),
                             gst_missing_decoder_message_new(GST_ELEMENT(bin), caps));
    GST_ELEMENT_ERROR(bin, STREAM, CODEC_NOT_FOUND,
                      ("No decoder for %s: install gstreamer1.0-libav or another plug-in with one.",
                       name ? name.get() : "this format"),
                      ("%" GST_PTR_FORMAT, static_cast<void*>(caps)));
}

void reportMissingParser(GstBin* bin, const char* parser) {
    gst_element_post_message(GST_ELEMENT(bin),
                             gst_missing_element_message_new(GST_ELEMENT(bin), parser));
    GST_ELEMENT_ERROR(bin, CORE, MISSING_PLUGIN,
                      ("No element '%s': install gstreamer1.0-plugins-good and "
                       "gstreamer1.0-plugins-bad.",
                       parser),
                      (nullptr));
}

} // namespace

GstPtr<GstCaps> DecodeChain::codedCaps() const {
    if (m_elements.empty())
        return nullptr;
    return GstPtr<GstCaps>(gst_pad_get_current_caps(sinkPadOf(m_elements.back()).get()));
}

bool DecodeChain::add(GstPtr<GstElement> element) {
    auto* previous = m_elements.empty() ? nullptr : m_elements.back();
    m_elements.push_back(element.get());
    return gst_bin_add(m_bin, element.get()) &&
           (!previous || gst_element_link(previous, element.get()));
}

bool DecodeChain::build(const MediaFormat& format, GstCaps* caps, GstGhostPad* pad,
                        GstElement* output) {
    m_format = &format;
    if (!format.decoderCaps)
        return true;

    auto parser =
        sinkRef(format.parser ? gst_element_factory_make(format.parser, nullptr) : nullptr);
    if (format.parser && !parser) {
        reportMissingParser(m_bin, format.parser);
        return false;
    }
    const GstPtr<GstCaps> wanted(gst_caps_from_string(format.decoderCaps));
    auto decoder = makeDecoder(wanted.get());
    if (!decoder) {
        reportMissingDecoder(m_bin, caps);
        return false;
    }

    // Nothing is led into a part before it runs: what is being activated forgets a flush that comes
    // in between, and waits for data with the lock that the flush wants.
    gst_ghost_pad_set_target(pad, nullptr);
    auto buffer = makeBuffer(m_bin);
    bool ready = buffer && add(std::move(buffer)) && (!parser || add(std::move(parser))) &&
                 add(std::move(decoder));
    ready = ready && gst_element_link(m_elements.back(), output) &&
            std::all_of(m_elements.rbegin(), m_elements.rend(),
                        [](auto* e) { return gst_element_sync_state_with_parent(e); }) &&
            gst_ghost_pad_set_target(pad, sinkPadOf(m_elements.front()).get());
    if (!ready)
        GST_ELEMENT_ERROR(m_bin, CORE, NEGOTIATION,
                          ("The decoder for %s does not start.", format.codec),
                          ("%" GST_PTR_FORMAT, static_cast<void*>(caps)));
    return ready;
}

bool DecodeChain::drain() {
    return !m_elements.empty() &&
           gst_pad_send_event(sinkPadOf(m_elements.front()).get(), gst_event_new_eos());
}

void DecodeChain::remove(GstGhostPad* pad, GstElement* output) {
    for (auto* element : m_elements) {
        gst_element_set_locked_state(element, TRUE); // the bin may be on its way up or down
        gst_element_set_state(element, GST_STATE_NULL);
        gst_bin_remove(m_bin, element);
    }
    m_elements.clear();
    m_format = nullptr;
    gst_ghost_pad_set_target(pad, sinkPadOf(output).get());
}

} // namespace noxelements
