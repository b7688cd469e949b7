#include "media_formats.h"

#include <algorithm>
#include <iterator>

namespace noxelements {

namespace {

// Alpha variants of VP8 and VP9 are shown without their alpha plane: "codec-alpha" keeps the
// decoders away that exist for it alone.
constexpr MediaFormat videoRows[] = {
    {"video/x-h264", "H264", "h264parse", "video/x-h264"},
    {"video/x-h265", "H265", "h265parse", "video/x-h265"},
    {"video/x-vp8", "VP8", nullptr, "video/x-vp8, codec-alpha=(boolean)false"},
    {"video/x-vp9", "VP9", "vp9parse", "video/x-vp9, codec-alpha=(boolean)false"},
    {"video/x-av1", "AV1", "av1parse", "video/x-av1"},
    {"video/mpeg, mpegversion=(int)[1,2], systemstream=(boolean)false", "MPEG2", "mpegvideoparse",
     "video/mpeg, mpegversion=(int)2, systemstream=(boolean)false"},
    {"video/mpeg, mpegversion=(int)4, systemstream=(boolean)false", "MPEG4", "mpeg4videoparse",
     "video/mpeg, mpegversion=(int)4, systemstream=(boolean)false"},
    {"video/x-theora", "THEORA", nullptr, "video/x-theora"},
    {"video/x-raw", "RAW", nullptr, nullptr},
};

constexpr MediaFormat audioRows[] = {
    {"audio/mpeg, mpegversion=(int)4, stream-format=(string)loas", "AAC", "aacparse",
     "audio/mpeg, mpegversion=(int)4, stream-format=(string)loas"},
    {"audio/mpeg, mpegversion=(int){2,4}", "AAC", "aacparse",
     "audio/mpeg, mpegversion=(int)4, stream-format=(string)raw"},
    {"audio/mpeg, mpegversion=(int)1, layer=(int)1", "MP1", "mpegaudioparse",
     "audio/mpeg, mpegversion=(int)1, layer=(int)1"},
    {"audio/mpeg, mpegversion=(int)1, layer=(int)2", "MP2", "mpegaudioparse",
     "audio/mpeg, mpegversion=(int)1, layer=(int)2"},
    {"audio/mpeg, mpegversion=(int)1", "MP3", "mpegaudioparse",
     "audio/mpeg, mpegversion=(int)1, layer=(int)3"},
    {"audio/x-opus", "OPUS", nullptr, "audio/x-opus"},
    {"audio/x-vorbis", "VORBIS", nullptr, "audio/x-vorbis"},
    {"audio/x-ac3", "AC3", "ac3parse", "audio/x-ac3"},
    {"audio/x-eac3", "EAC3", "ac3parse", "audio/x-eac3"},
    {"audio/x-dts", "DTS", "dcaparse", "audio/x-dts"},
    {"audio/x-flac", "FLAC", "flacparse", "audio/x-flac"},
    {"audio/x-raw", "PCM", nullptr, nullptr},
};

} // namespace

const MediaFormats videoFormats = {videoRows, std::size(videoRows)};
const MediaFormats audioFormats = {audioRows, std::size(audioRows)};

GstPtr<GstCaps> MediaFormats::templateCaps() const {
    GstCaps* all = gst_caps_new_empty();
    for (const auto& row : *this)
        gst_caps_append(all, gst_caps_from_string(row.caps));
    return GstPtr<GstCaps>(all);
}

const MediaFormat* MediaFormats::find(const GstCaps* caps) const {
    const auto* row = std::find_if(begin(), end(), [caps](const MediaFormat& format) {
        const GstPtr<GstCaps> taken(gst_caps_from_string(format.caps));
        return gst_caps_is_subset(caps, taken.get());
    });
    return row != end() ? row : nullptr;
}

} // namespace noxelements
