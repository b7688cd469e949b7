// Any bytes as the codec headers that containers carry: what comes of them is what the backend
// takes, and nothing is read beyond them. Input: whose headers they are, a byte; the headers.

#include "base/gst_ptr.h"
#include "codec/codecheaders.h"
#include "codec_conversion.h"
#include "gst_once.h"
#include "host/adts.h"

#include <algorithm>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>; ///< of exactly the size: the first byte behind is noticed

void tryAac(const Bytes& bytes) {
    const auto format = host::parseAudioSpecificConfig(bytes.data(), bytes.size());
    if (!format)
        return;
    require(format->profile <= 3 && format->channels >= 1 && format->channels <= 7);
    require(host::sampleRate(*format) >= 7350);
    const auto payload = std::min(bytes.size(), host::maximumAdtsPayload);
    const auto header = host::adtsHeader(*format, payload);
    const auto length = (header[3] & 3U) << 11 | header[4] << 3U | header[5] >> 5U;
    require(length == payload + header.size() && header[2] >> 6 == format->profile);
}

/// What is turned twice is as before, and the backend reads what the host has turned.
void tryOpus(const Bytes& bytes) {
    const auto turned = host::turnOpusHeader(bytes.data(), bytes.size());
    if (turned.empty())
        return;
    require(host::turnOpusHeader(turned.data(), turned.size()) == bytes);
    OpusHeader header;
    if (opus_header_parse(turned.data(), turned.size(), &header))
        require(header.preSkip == (bytes[10] | bytes[11] << 8) && header.channels == bytes[9]);
}

void tryVorbis(const Bytes& bytes) {
    const auto joined = host::joinVorbisHeaders(bytes.data(), bytes.size());
    require(joined.size() < std::max<size_t>(bytes.size(), 1));
    const auto caps = GstPtr<GstCaps>::adopt(gst_caps_new_empty_simple("audio/x-vorbis"));
    gst_vorbis_set_extra_data(caps.get(), joined.data(), joined.size());
}

void tryVp9(const Bytes& bytes) {
    if (vp9_begins_stream(bytes.data(), bytes.size()))
        require(bytes.size() >= 5 && bytes[0] >> 6 == 2);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr void (*tries[])(const Bytes&) = {tryAac, tryOpus, tryVorbis, tryVp9};
    if (size == 0)
        return 0;
    fuzz::startGst();
    tries[data[0] % std::size(tries)](Bytes(data + 1, data + size));
    return 0;
}
