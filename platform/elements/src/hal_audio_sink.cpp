#include "hal_audio_sink.h"

#include "device_output.h"
#include "output_tap.h"

#include <gst/audio/audio.h>

namespace noxelements {

namespace {

constexpr const char* volumeName = "nox-volume";

} // namespace

HalAudioSink::HalAudioSink(GstBin* bin) : HalSink(bin, "audio", audioFormats) {
    if (!silentOutput())
        return;
    g_object_set(silentOutput(), "signal-handoffs", TRUE, nullptr);
    g_signal_connect(silentOutput(), "handoff", G_CALLBACK(onPlayed), this);
}

void HalAudioSink::onPlayed(GstElement*, GstBuffer* sound, GstPad* pad, gpointer sink) {
    auto& self = *static_cast<HalAudioSink*>(sink);
    tapSound(self.bin(), sound, pad);
    self.recordOutput(sound, "first sound", "sound");
}

void HalAudioSink::setVolume(double volume) {
    m_volume = volume;
    applyVolume();
}

void HalAudioSink::applyVolume() {
    const GstPtr<GstElement> element(gst_bin_get_by_name(bin(), volumeName));
    if (element)
        g_object_set(element.get(), "volume", m_volume.load(), nullptr);
}

void HalAudioSink::activated() {
    nox::Screen::instance().add(this);
}

void HalAudioSink::deactivated() {
    nox::Screen::instance().remove(this);
}

GstPtr<GstElement> HalAudioSink::makeDeviceOutput() {
    if (!hasSoundDevice() || nox::Screen::instance().isTapped())
        return nullptr;
    return makeDeviceChain("audioconvert ! audioresample ! volume name=nox-volume",
                           GST_ELEMENT_FACTORY_TYPE_MEDIA_AUDIO);
}

void HalAudioSink::deviceOutputAdded(GstElement*) {
    applyVolume();
}

GstPtr<GstStructure> HalAudioSink::describe(const GstCaps* decoded, const MediaFormat& format) {
    GstAudioInfo info;
    if (!gst_audio_info_from_caps(&info, decoded))
        return nullptr;
    return GstPtr<GstStructure>(gst_structure_new("GstNoxAudioFormat", "codec", G_TYPE_STRING,
                                                  format.codec, "rate", G_TYPE_INT, info.rate,
                                                  "channels", G_TYPE_INT, info.channels, nullptr));
}

} // namespace noxelements

using noxelements::HalAudioSink;

struct GstHalAudioSink {
    GstHalSink parent;
};

struct GstHalAudioSinkClass {
    GstHalSinkClass parent;
};

G_DEFINE_TYPE(GstHalAudioSink, gst_hal_audio_sink, GST_TYPE_HAL_SINK)

enum { propOutputDdp = 1 };

static std::atomic<unsigned>& outputDdpOf(GObject* object) {
    return static_cast<HalAudioSink*>(reinterpret_cast<GstHalSink*>(object)->impl)->outputDdp;
}

static void gst_hal_audio_sink_set_property(GObject* object, guint id, const GValue* value,
                                            GParamSpec* spec) {
    if (id == propOutputDdp)
        outputDdpOf(object) = g_value_get_uint(value);
    else
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
}

static void gst_hal_audio_sink_get_property(GObject* object, guint id, GValue* value,
                                            GParamSpec* spec) {
    if (id == propOutputDdp)
        g_value_set_uint(value, outputDdpOf(object));
    else
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
}

static void gst_hal_audio_sink_class_init(GstHalAudioSinkClass* klass) {
    auto* object = G_OBJECT_CLASS(klass);
    object->set_property = gst_hal_audio_sink_set_property;
    object->get_property = gst_hal_audio_sink_get_property;
    g_object_class_install_property(
        object, propOutputDdp,
        g_param_spec_uint("output-ddp", "Output DD+",
                          "1 passes Dolby Digital Plus through to the digital output; a PC has "
                          "none and only remembers the value",
                          0, 9, 0,
                          static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
    gst_hal_sink_class_describe(GST_ELEMENT_CLASS(klass), "Audio decoder-sink",
                                "Sink/Audio/Hardware", "Decodes audio and plays it",
                                noxelements::audioFormats);
}

static void gst_hal_audio_sink_init(GstHalAudioSink* sink) {
    sink->parent.impl = new HalAudioSink(GST_BIN(sink));
}
