#include "stream_format.h"

#include "codec_conversion.h"

extern "C" {
#include <libavutil/mastering_display_metadata.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <utility>

namespace host {

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Draft {
    std::shared_ptr<OwnedConfig> config;
    StreamFormat format;
};

/// Takes the codec headers into the draft. Answers what is wrong with them.
using TakeHeaders = const char* (*)(Draft& draft, const Bytes& extradata);

const char* takeNone(Draft&, const Bytes&) {
    return nullptr;
}

/// A decoder configuration record, behind which NAL units have length prefixes. Anything else
/// belongs to a byte stream, which has its parameter sets inside.
const char* takeDecoderConfiguration(Draft& draft, const Bytes& extradata) {
    if (!extradata.empty() && extradata[0] == 1)
        draft.config->headers = extradata;
    return nullptr;
}

const char* takeAudioSpecificConfig(Draft& draft, const Bytes& extradata) {
    if (extradata.empty())
        return nullptr; // frames have ADTS headers already
    draft.format.adts = parseAudioSpecificConfig(extradata.data(), extradata.size());
    return draft.format.adts ? nullptr
                             : "the AAC stream's object type, sampling rate or channel layout does "
                               "not fit an ADTS header; play the URL without --mse";
}

const char* takeVorbis(Draft& draft, const Bytes& extradata) {
    draft.config->headers = joinVorbisHeaders(extradata.data(), extradata.size());
    return draft.config->headers.empty() ? "the Vorbis headers are damaged" : nullptr;
}

const char* takeOpus(Draft& draft, const Bytes& extradata) {
    draft.config->headers = turnOpusHeader(extradata.data(), extradata.size());
    return draft.config->headers.empty() ? "the Opus header is damaged" : nullptr;
}

struct CodecRow {
    AVCodecID id;
    MediaSourceCodec codec;
    TakeHeaders takeHeaders;
};
constexpr CodecRow codecRows[] = {
    {AV_CODEC_ID_H264, {UVAStreamConfig::CODEC_H264, "video/x-h264"}, takeDecoderConfiguration},
    {AV_CODEC_ID_HEVC, {UVAStreamConfig::CODEC_H265, "video/x-h265"}, takeDecoderConfiguration},
    {AV_CODEC_ID_VP8, {UVAStreamConfig::CODEC_VP8, "video/x-vp8"}, takeNone},
    {AV_CODEC_ID_VP9, {UVAStreamConfig::CODEC_VP9, "video/x-vnd.on2.vp9"}, takeNone},
    {AV_CODEC_ID_AAC, {UVAStreamConfig::CODEC_AAC, "audio/x-aac+adts"}, takeAudioSpecificConfig},
    {AV_CODEC_ID_MP3, {UVAStreamConfig::CODEC_MP3, "audio/mpeg"}, takeNone},
    {AV_CODEC_ID_OPUS, {UVAStreamConfig::CODEC_OPUS, "audio/x-opus"}, takeOpus},
    {AV_CODEC_ID_VORBIS, {UVAStreamConfig::CODEC_VORBIS, "audio/x-vorbis"}, takeVorbis},
    {AV_CODEC_ID_AC3, {UVAStreamConfig::CODEC_AC3, "audio/x-ac3"}, takeNone},
    {AV_CODEC_ID_EAC3, {UVAStreamConfig::CODEC_EAC3, "audio/x-eac3"}, takeNone},
    {AV_CODEC_ID_DTS, {UVAStreamConfig::CODEC_DTS, "audio/x-dts"}, takeNone},
};

const CodecRow* findCodec(AVCodecID id) {
    const auto* row = std::find_if(std::begin(codecRows), std::end(codecRows),
                                   [id](const CodecRow& candidate) { return candidate.id == id; });
    return row == std::end(codecRows) ? nullptr : row;
}

unsigned int bitsPerChannel(const AVCodecParameters& parameters) {
    if (parameters.bits_per_raw_sample > 0)
        return static_cast<unsigned int>(parameters.bits_per_raw_sample);
    const auto* pixels = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(parameters.format));
    return pixels == nullptr ? ~0U : static_cast<unsigned int>(pixels->comp[0].depth);
}

void takeColor(OwnedConfig& config, const AVCodecParameters& parameters) {
    auto& color = config.colorInfo;
    color.matrix = static_cast<unsigned int>(parameters.color_space);
    color.range = static_cast<unsigned int>(parameters.color_range);
    color.transfer = static_cast<unsigned int>(parameters.color_trc);
    color.primaries = static_cast<unsigned int>(parameters.color_primaries);
    color.bitsPerChannel = bitsPerChannel(parameters);
    const bool known = parameters.color_space != AVCOL_SPC_UNSPECIFIED ||
                       parameters.color_range != AVCOL_RANGE_UNSPECIFIED ||
                       parameters.color_trc != AVCOL_TRC_UNSPECIFIED ||
                       parameters.color_primaries != AVCOL_PRI_UNSPECIFIED ||
                       color.bitsPerChannel != ~0U;
    if (known)
        config.color = &color;
}

void takeMastering(OwnedConfig& config, const AVStream& stream) {
    std::size_t size = 0;
    const auto* bytes =
        av_stream_get_side_data(&stream, AV_PKT_DATA_MASTERING_DISPLAY_METADATA, &size);
    if (bytes == nullptr || size < sizeof(AVMasteringDisplayMetadata))
        return;
    const auto* from =
        static_cast<const AVMasteringDisplayMetadata*>(static_cast<const void*>(bytes));
    const auto number = [](AVRational value) { return value.den == 0 ? 0 : av_q2d(value); };
    auto& to = config.masteringMetadata;
    to.primaryRX = number(from->display_primaries[0][0]);
    to.primaryRY = number(from->display_primaries[0][1]);
    to.primaryGX = number(from->display_primaries[1][0]);
    to.primaryGY = number(from->display_primaries[1][1]);
    to.primaryBX = number(from->display_primaries[2][0]);
    to.primaryBY = number(from->display_primaries[2][1]);
    to.whitePointX = number(from->white_point[0]);
    to.whitePointY = number(from->white_point[1]);
    to.luminanceMax = number(from->max_luminance);
    to.luminanceMin = number(from->min_luminance);
    config.mastering = &to;
}

} // namespace

const MediaSourceCodec* findMediaSourceCodec(AVCodecID codec) {
    const auto* row = findCodec(codec);
    return row == nullptr ? nullptr : &row->codec;
}

const char* mediaSourceType(AVCodecID codec) {
    const auto* found = findMediaSourceCodec(codec);
    return found == nullptr ? nullptr : found->mimeType;
}

const char* mediaSourceType(const UVAStreamConfig* config) {
    const auto* row =
        std::find_if(std::begin(codecRows), std::end(codecRows), [config](const CodecRow& candidate) {
            return config != nullptr && candidate.codec.codec == config->codec;
        });
    return row == std::end(codecRows) ? nullptr : row->codec.mimeType;
}

std::shared_ptr<const StreamFormat> makeStreamFormat(const AVStream& stream, Bytes extradata,
                                                     std::string& error) {
    const auto& parameters = *stream.codecpar;
    const CodecRow& row = *findCodec(parameters.codec_id);
    Draft draft{std::make_shared<OwnedConfig>(), {}};
    if (const char* fault = row.takeHeaders(draft, extradata)) {
        error = fault;
        return nullptr;
    }
    auto& config = *draft.config;
    config.codec = row.codec.codec;
    if (!config.headers.empty()) {
        config.codecData = config.headers.data();
        config.codecDataSize = config.headers.size();
    }
    if (parameters.codec_type == AVMEDIA_TYPE_AUDIO) {
        config.sampleRate = parameters.sample_rate;
        config.channels = parameters.ch_layout.nb_channels;
    } else {
        config.width = parameters.width;
        config.height = parameters.height;
        takeColor(config, parameters);
        takeMastering(config, stream);
    }
    draft.format.config = std::move(draft.config);
    draft.format.extradata = std::move(extradata);
    return std::make_shared<const StreamFormat>(std::move(draft.format));
}

} // namespace host
