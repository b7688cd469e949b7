#include "codec/codeccaps.h"

#include "codec/codecheaders.h"
#include "codec/codecutil.h"
#include "base/gst_ptr.h"
#include "base/gstnox_debug.h"
#include "uva/uva_stream_config.h"

#include <gst/video/video.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>
#include <limits>
#include <utility>

#define GST_CAT_DEFAULT gst_backend_debug

namespace {

struct CodecCaps {
    int codec;
    const char* caps;
    const char* withoutCodecData; ///< added to the caps then; null: nothing
};

constexpr const char* adts =
    "audio/mpeg, mpegversion=(int)4, framed=(boolean)true, stream-format=(string)adts";

constexpr CodecCaps codecCaps[] = {
    {UVAStreamConfig::CODEC_AAC, adts, nullptr},
    {UVAStreamConfig::CODEC_AAC_MAIN, adts, nullptr},
    {UVAStreamConfig::CODEC_AAC_HE, adts, nullptr},
    {UVAStreamConfig::CODEC_MP3, "audio/mpeg, mpegversion=(int)1, layer=(int)3", nullptr},
    {UVAStreamConfig::CODEC_VORBIS, "audio/x-vorbis", nullptr},
    {UVAStreamConfig::CODEC_EAC3, "audio/x-eac3", nullptr},
    {UVAStreamConfig::CODEC_AC3, "audio/x-ac3", nullptr},
    {UVAStreamConfig::CODEC_DTS, "audio/x-dts", nullptr},
    {UVAStreamConfig::CODEC_H264, "video/x-h264",
     "fields, stream-format=(string)byte-stream, alignment=(string)au"},
    {UVAStreamConfig::CODEC_H265, "video/x-h265", "fields, stream-format=(string)byte-stream"},
    {UVAStreamConfig::CODEC_VP8, "video/x-vp8", nullptr},
    {UVAStreamConfig::CODEC_VP9, "video/x-vp9", nullptr},
};

bool hasCodecData(const UVAStreamConfig& config) {
    return config.codecData != nullptr && config.codecDataSize > 0;
}

gboolean setField(GQuark field, const GValue* value, gpointer structure) {
    gst_structure_id_set_value(static_cast<GstStructure*>(structure), field, value);
    return TRUE;
}

GstPtr<GstCaps> capsOfCodec(const UVAStreamConfig& config) {
    if (config.codec == UVAStreamConfig::CODEC_OPUS)
        return GstPtr<GstCaps>::adopt(
            gst_opus_create_caps_from_header(config.codecData, config.codecDataSize));
    const auto* row = std::find_if(std::begin(codecCaps), std::end(codecCaps),
                                   [&](const CodecCaps& r) { return r.codec == config.codec; });
    if (row == std::end(codecCaps)) {
        GST_ERROR("Unknown stream config %d", config.codec);
        return nullptr;
    }
    auto caps = GstPtr<GstCaps>::adopt(gst_caps_from_string(row->caps));
    if (row->withoutCodecData != nullptr && !hasCodecData(config)) {
        GstStructure* more = gst_structure_from_string(row->withoutCodecData, nullptr);
        gst_structure_foreach(more, setField, gst_caps_get_structure(caps.get(), 0));
        gst_structure_free(more);
    }
    if (config.codec == UVAStreamConfig::CODEC_VORBIS)
        gst_vorbis_set_extra_data(caps.get(), config.codecData, config.codecDataSize);
    return caps;
}

void setPositive(GstStructure* structure, const char* field, int value) {
    if (value > 0)
        gst_structure_set(structure, field, G_TYPE_INT, value, nullptr);
}

GstVideoColorRange rangeOf(unsigned int range) {
    switch (range) {
    case 1:
        return GST_VIDEO_COLOR_RANGE_16_235;
    case 2:
        return GST_VIDEO_COLOR_RANGE_0_255;
    default:
        return GST_VIDEO_COLOR_RANGE_UNKNOWN;
    }
}

void setColor(GstStructure* structure, const UVAStreamConfig::ColorInfo& color) {
    GST_LOG("HDR: Color format information present");
    GST_LOG("colorimetri=%d:%d:%d:%d", static_cast<int>(color.matrix),
            static_cast<int>(color.range), static_cast<int>(color.transfer),
            static_cast<int>(color.primaries));
    GstVideoColorimetry colorimetry;
    colorimetry.range = rangeOf(color.range);
    colorimetry.matrix = gst_video_color_matrix_from_iso(color.matrix);
    colorimetry.transfer = gst_video_transfer_function_from_iso(color.transfer);
    colorimetry.primaries = gst_video_color_primaries_from_iso(color.primaries);
    const bool known = colorimetry.range != GST_VIDEO_COLOR_RANGE_UNKNOWN ||
                       colorimetry.matrix != GST_VIDEO_COLOR_MATRIX_UNKNOWN ||
                       colorimetry.transfer != GST_VIDEO_TRANSFER_UNKNOWN ||
                       colorimetry.primaries != GST_VIDEO_COLOR_PRIMARIES_UNKNOWN;
    const GCharPtr text(known ? gst_video_colorimetry_to_string(&colorimetry) : nullptr);
    if (text)
        gst_structure_set(structure, "colorimetry", G_TYPE_STRING, text.get(), nullptr);
    if (color.bitsPerChannel != ~0U)
        gst_structure_set(structure, "bits_per_channel", G_TYPE_INT64,
                          static_cast<gint64>(color.bitsPerChannel), nullptr);
}

/// `value` in steps of 1/`scale`, to the nearest: 0.3127 is 15635 of 50000, though the product is a
/// trifle less. What does not fit becomes the nearest that does.
template <typename Steps>
Steps toSteps(double value, double scale) {
    constexpr auto largest = static_cast<double>(std::numeric_limits<Steps>::max());
    const double steps = std::round(value * scale);
    return steps > 0 ? static_cast<Steps>(std::min(steps, largest)) : Steps{0};
}

void setMastering(GstCaps* caps, const UVAStreamConfig::MasteringMetadata& m) {
    constexpr double chromaticityScale = 50000;
    constexpr double luminanceScale = 10000;
    GST_LOG("mastering_metadata=%5.3f:%5.3f:%5.3f:%5.3f:%5.3f:%5.3f:%5.3f:%5.3f:%5.3f:%5.3f",
            m.primaryRX, m.primaryRY, m.primaryGX, m.primaryGY, m.primaryBX, m.primaryBY,
            m.whitePointX, m.whitePointY, m.luminanceMax, m.luminanceMin);
    GstVideoMasteringDisplayInfo info;
    gst_video_mastering_display_info_init(&info);
    const std::array<std::pair<double, double>, 3> primaries = {
        {{m.primaryRX, m.primaryRY}, {m.primaryGX, m.primaryGY}, {m.primaryBX, m.primaryBY}}};
    for (gsize i = 0; i < primaries.size(); ++i) {
        info.display_primaries[i].x = toSteps<guint16>(primaries[i].first, chromaticityScale);
        info.display_primaries[i].y = toSteps<guint16>(primaries[i].second, chromaticityScale);
    }
    info.white_point.x = toSteps<guint16>(m.whitePointX, chromaticityScale);
    info.white_point.y = toSteps<guint16>(m.whitePointY, chromaticityScale);
    // Signed, for that is how the text in the caps is written: more could not be read again.
    info.max_display_mastering_luminance =
        static_cast<guint32>(toSteps<gint32>(m.luminanceMax, luminanceScale));
    info.min_display_mastering_luminance =
        static_cast<guint32>(toSteps<gint32>(m.luminanceMin, luminanceScale));
    gst_video_mastering_display_info_add_to_caps(&info, caps);
}

void setVideo(GstCaps* caps, const UVAStreamConfig& config) {
    GstStructure* structure = gst_caps_get_structure(caps, 0);
    setPositive(structure, "width", config.width);
    setPositive(structure, "height", config.height);
    if (config.color != nullptr)
        setColor(structure, *config.color);
    if (config.mastering != nullptr)
        setMastering(caps, *config.mastering);
}

void setAudio(GstStructure* structure, const UVAStreamConfig* config) {
    g_assert(UVAStreamConfig::av(config->codec) == UVAStreamConfig::AUDIO_STREAM);
    setPositive(structure, "rate", config->sampleRate);
    setPositive(structure, "channels", config->channels);
}

} // namespace

GstCaps* gst_caps_create_from_config(const UVAStreamConfig* config) {
    if (config == nullptr)
        return nullptr;
    auto caps = capsOfCodec(*config);
    if (!caps)
        return nullptr;
    GstStructure* structure = gst_caps_get_structure(caps.get(), 0);
    if (UVAStreamConfig::av(config->codec) == UVAStreamConfig::VIDEO_STREAM)
        setVideo(caps.get(), *config);
    else
        setAudio(structure, config);
    if (hasCodecData(*config) && config->codec != UVAStreamConfig::CODEC_VORBIS) {
        const auto data =
            GstPtr<GstBuffer>::adopt(gst_buffer_new_copy(config->codecData, config->codecDataSize));
        gst_structure_set(structure, "codec_data", GST_TYPE_BUFFER, data.get(), nullptr);
    }
    return caps.release();
}
