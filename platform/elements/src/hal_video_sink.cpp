#include "hal_video_sink.h"

#include "device_output.h"
#include "inner_sinks.h"
#include "output_tap.h"
#include "picture.h"

#include <gst/base/gstbasesink.h>
#include <gst/video/video.h>

namespace noxelements {

namespace {

constexpr const char* balanceName = "balance";
constexpr const char* firstPicture = "first picture"; // of the time line

std::uint64_t isCorrupted(GstBuffer* picture) {
    return GST_BUFFER_FLAG_IS_SET(picture, GST_BUFFER_FLAG_CORRUPTED) ? 1 : 0;
}

} // namespace

void HalVideoSink::onShown(GstElement*, GstBuffer* picture, GstPad* pad, gpointer sink) {
    auto& self = *static_cast<HalVideoSink*>(sink);
    auto& screen = nox::Screen::instance();
    tapPicture(self.bin(), picture, pad, false);
    self.recordOutput(picture, firstPicture, "picture");
    screen.count(&self, {self.m_isCounted.exchange(false) ? 0U : 1U, 0, isCorrupted(picture)});
    screen.pictureShown(&self);
}

void HalVideoSink::onStill(GstElement*, GstBuffer* picture, GstPad* pad, gpointer sink) {
    auto& self = *static_cast<HalVideoSink*>(sink);
    tapPicture(self.bin(), picture, pad, true);
    self.recordOutput(picture, firstPicture, "still picture");
}

/// A device tells nobody when it shows a picture: when the next one arrives, the last one has been,
/// or was dropped.
GstPadProbeReturn HalVideoSink::onDeviceBuffer(GstPad*, GstPadProbeInfo* info, gpointer sink) {
    auto& self = *static_cast<HalVideoSink*>(sink);
    auto& screen = nox::Screen::instance();
    screen.count(&self, {self.m_isOnDevice.exchange(true) ? 1U : 0U, 0,
                         isCorrupted(GST_PAD_PROBE_INFO_BUFFER(info))});
    screen.pictureShown(&self);
    self.recordOutput(GST_PAD_PROBE_INFO_BUFFER(info), firstPicture, "picture");
    return GST_PAD_PROBE_OK;
}

HalVideoSink::HalVideoSink(GstBin* bin) : HalSink(bin, "video", videoFormats) {
    if (!silentOutput())
        return;
    g_object_set(silentOutput(), "signal-handoffs", TRUE, nullptr);
    g_signal_connect(silentOutput(), "handoff", G_CALLBACK(onShown), this);
    g_signal_connect(silentOutput(), "preroll-handoff", G_CALLBACK(onStill), this);
}

void HalVideoSink::handleMessage(GstMessage* message) {
    auto& screen = nox::Screen::instance();
    auto* source = GST_MESSAGE_SRC(message);
    // Before the message goes on: who has seen the step to PAUSED finds the picture told.
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ASYNC_DONE && isGranted()) {
        if (source == GST_OBJECT(silentOutput())) {
            m_isCounted = true; // it is not shown once more when it is rendered
            screen.count(this, {1, 0, 0});
        }
        screen.pictureShown(this);
    } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_QOS) { // for each picture left out
        if (GST_IS_BASE_SINK(source))
            m_isOnDevice = false;
        screen.count(this, {0, 1, 0});
        record("picture left out");
    }
    HalSink::handleMessage(message);
}

void HalVideoSink::activated() {
    nox::Screen::instance().add(this, GST_OBJECT_NAME(bin()));
}

void HalVideoSink::deactivated() {
    if (m_isOnDevice.exchange(false))
        nox::Screen::instance().count(this, {1, 0, 0});
    nox::Screen::instance().remove(this);
}

bool HalVideoSink::grab(nox::Picture& picture, int width, int height) {
    const auto sample = m_visible ? lastSample(bin()) : nullptr;
    return sample && convertPicture(sample.get(), picture, width, height);
}

void HalVideoSink::setVisible(bool visible) {
    m_visible = visible;
    applyVisible();
}

/// Turns a device's picture black or back.
void HalVideoSink::applyVisible() {
    const GstPtr<GstElement> balance(gst_bin_get_by_name(bin(), balanceName));
    if (!balance)
        return;
    const bool visible = m_visible;
    g_object_set(balance.get(), "brightness", visible ? 0.0 : -1.0, "contrast", visible ? 1.0 : 0.0,
                 "saturation", visible ? 1.0 : 0.0, nullptr);
}

GstPtr<GstElement> HalVideoSink::makeDeviceOutput() {
    if (!hasDisplay() || nox::Screen::instance().isTapped())
        return nullptr;
    return makeDeviceChain("videoconvert ! videoscale ! videobalance name=balance",
                           GST_ELEMENT_FACTORY_TYPE_MEDIA_VIDEO);
}

void HalVideoSink::deviceOutputAdded(GstElement* output) {
    applyVisible();
    const GstPtr<GstPad> pad(gst_element_get_static_pad(output, "sink"));
    gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, onDeviceBuffer, this, nullptr);
}

GstPtr<GstStructure> HalVideoSink::describe(const GstCaps* decoded, const MediaFormat&) {
    GstVideoInfo info;
    if (!gst_video_info_from_caps(&info, decoded))
        return nullptr;
    int darN = 0;
    int darD = 1;
    if (!gst_util_fraction_multiply(info.width, info.height, info.par_n, info.par_d, &darN, &darD))
        return nullptr;
    const auto shownWidth = static_cast<int>(
        gst_util_uint64_scale_int_round(static_cast<guint64>(info.width), info.par_n, info.par_d));
    GstPtr<GstStructure> structure(gst_structure_new(
        "GstNoxVideoFormat", "width", G_TYPE_INT, info.width, "height", G_TYPE_INT, info.height,
        "disp-width", G_TYPE_INT, shownWidth, "disp-height", G_TYPE_INT, info.height,
        "display-aspect-ratio", GST_TYPE_FRACTION, darN, darD, nullptr));
    if (info.fps_n > 0)
        gst_structure_set(structure.get(), "frame-rate", GST_TYPE_FRACTION, info.fps_n, info.fps_d,
                          nullptr);
    return structure;
}

} // namespace noxelements

struct GstHalVideoSink {
    GstHalSink parent;
};

struct GstHalVideoSinkClass {
    GstHalSinkClass parent;
};

G_DEFINE_TYPE(GstHalVideoSink, gst_hal_video_sink, GST_TYPE_HAL_SINK)

static void gst_hal_video_sink_class_init(GstHalVideoSinkClass* klass) {
    gst_hal_sink_class_describe(GST_ELEMENT_CLASS(klass), "Video decoder-sink",
                                "Sink/Video/Hardware", "Decodes video and shows it",
                                noxelements::videoFormats);
}

static void gst_hal_video_sink_init(GstHalVideoSink* sink) {
    sink->parent.impl = new noxelements::HalVideoSink(GST_BIN(sink));
}
