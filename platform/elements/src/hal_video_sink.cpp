#include "hal_video_sink.h"

#include "device_output.h"
#include "inner_sinks.h"
#include "picture.h"

#include <gst/video/video.h>

namespace noxelements {

namespace {

constexpr const char* balanceName = "balance";

void onShown(GstElement*, GstBuffer*, GstPad*, gpointer plane) {
    nox::Screen::instance().pictureShown(static_cast<nox::VideoPlane*>(plane));
}

/// A device tells nobody when it shows a picture: when the next one arrives, the last one has been.
GstPadProbeReturn onDeviceBuffer(GstPad*, GstPadProbeInfo*, gpointer plane) {
    nox::Screen::instance().pictureShown(static_cast<nox::VideoPlane*>(plane));
    return GST_PAD_PROBE_OK;
}

} // namespace

HalVideoSink::HalVideoSink(GstBin* bin) : HalSink(bin, "video", videoFormats) {
    if (!silentOutput())
        return;
    g_object_set(silentOutput(), "signal-handoffs", TRUE, nullptr);
    g_signal_connect(silentOutput(), "handoff", G_CALLBACK(onShown),
                     static_cast<nox::VideoPlane*>(this));
}

void HalVideoSink::handleMessage(GstMessage* message) {
    // Before the message goes on: who has seen the step to PAUSED finds the picture told.
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ASYNC_DONE && isGranted())
        nox::Screen::instance().pictureShown(this);
    HalSink::handleMessage(message);
}

void HalVideoSink::activated() {
    nox::Screen::instance().add(this);
}

void HalVideoSink::deactivated() {
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
    if (!hasDisplay())
        return nullptr;
    return makeDeviceChain("videoconvert ! videoscale ! videobalance name=balance",
                           GST_ELEMENT_FACTORY_TYPE_MEDIA_VIDEO);
}

void HalVideoSink::deviceOutputAdded(GstElement* output) {
    applyVisible();
    const GstPtr<GstPad> pad(gst_element_get_static_pad(output, "sink"));
    gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, onDeviceBuffer,
                      static_cast<nox::VideoPlane*>(this), nullptr);
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
