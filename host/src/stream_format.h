#ifndef HOST_STREAM_FORMAT_H
#define HOST_STREAM_FORMAT_H

#include "host/adts.h"
#include "host/sample_stream.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace host {

/// How the packets of a stream become samples, until its codec headers change. Immutable.
struct StreamFormat {
    std::shared_ptr<const UVAStreamConfig> config;
    std::optional<AdtsFormat> adts;      ///< frames are raw AAC: each gets this in front
    std::vector<std::uint8_t> extradata; ///< what the two were made from
};

/// Owns what its base points to.
struct OwnedConfig final : UVAStreamConfig {
    std::vector<std::uint8_t> headers;
    ColorInfo colorInfo;
    MasteringMetadata masteringMetadata;
};

/// What media sources call a codec.
struct MediaSourceCodec {
    int codec;            ///< as in UVAStreamConfig
    const char* mimeType; ///< for UVABackend::SourceDescription
};

/// Null when media sources do not take the codec.
const MediaSourceCodec* findMediaSourceCodec(AVCodecID codec);
/// The MIME type of the codec for a media source; null when media sources do not take it.
const char* mediaSourceType(AVCodecID codec);
/// ... of samples with this configuration; null also when there is none.
const char* mediaSourceType(const UVAStreamConfig* config);

/// For a stream whose codec media sources take, with these codec headers. Null, and why.
std::shared_ptr<const StreamFormat>
makeStreamFormat(const AVStream& stream, std::vector<std::uint8_t> extradata, std::string& error);

} // namespace host

#endif
