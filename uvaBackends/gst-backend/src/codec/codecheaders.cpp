#include "codec/codecheaders.h"

#include "codec/codecutil.h"
#include "base/gst_ptr.h"
#include "base/gstnox_debug.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <string_view>
#include <vector>

#define GST_CAT_DEFAULT gst_backend_debug

namespace {

constexpr gsize channelOffset = 9;
constexpr gsize familyOffset = 18;
constexpr gsize shortestHeader = 19;
constexpr guint8 silence = 255;

/// "OpusTags", the vendor text "unkn" with its length (RFC 7845, 5.2), and no comments.
constexpr std::array<guint8, 24> opusComments = {'O', 'p', 'u', 's', 'T', 'a', 'g', 's',
                                                 4,   0,   0,   0,   'u', 'n', 'k', 'n'};

/// Sets the field to an array of header buffers.
void setStreamHeader(GstStructure* structure, const std::vector<GstPtr<GstBuffer>>& headers) {
    GValue array = G_VALUE_INIT;
    g_value_init(&array, GST_TYPE_ARRAY);
    for (const auto& header : headers) {
        GST_BUFFER_FLAG_SET(header.get(), GST_BUFFER_FLAG_HEADER);
        GValue value = G_VALUE_INIT;
        g_value_init(&value, GST_TYPE_BUFFER);
        gst_value_set_buffer(&value, header.get());
        gst_value_array_append_and_take_value(&array, &value);
    }
    gst_structure_take_value(structure, "streamheader", &array);
}

GstPtr<GstBuffer> copyOf(const guint8* data, gsize size) {
    return GstPtr<GstBuffer>::adopt(gst_buffer_new_copy(data, size));
}

void setChannelMapping(GstStructure* structure, const OpusHeader& header) {
    GValue array = G_VALUE_INIT;
    g_value_init(&array, GST_TYPE_ARRAY);
    for (guint i = 0; i < header.channels; ++i) {
        GValue value = G_VALUE_INIT;
        g_value_init(&value, G_TYPE_INT);
        g_value_set_int(&value, header.mapping[i]);
        gst_value_array_append_and_take_value(&array, &value);
    }
    gst_structure_take_value(structure, "channel-mapping", &array);
}

/// The number that the bytes make, wherever they lie; GST_READ_UINT32_BE wants them aligned.
guint32 readNumber(const guint8* data, gsize count) {
    return std::accumulate(data, data + count, guint32{0},
                           [](guint32 number, guint8 byte) { return number << 8 | byte; });
}

bool parseStereo(OpusHeader& header) {
    if (header.channels > 2)
        return false;
    header.streamCount = 1;
    header.coupledCount = header.channels == 2 ? 1 : 0;
    header.mapping[0] = 0;
    header.mapping[1] = 1;
    return true;
}

bool parseMapping(const guint8* data, gsize size, OpusHeader& header) {
    constexpr gsize mappingOffset = shortestHeader + 2;
    if (size < mappingOffset + header.channels)
        return false;
    header.streamCount = data[shortestHeader];
    header.coupledCount = data[shortestHeader + 1];
    const guint decoded = guint{header.streamCount} + header.coupledCount;
    if (header.streamCount == 0 || header.coupledCount > header.streamCount || decoded > 255)
        return false;
    std::copy_n(data + mappingOffset, header.channels, header.mapping.begin());
    return std::all_of(header.mapping.begin(), header.mapping.begin() + header.channels,
                       [decoded](guint8 index) { return index == silence || index < decoded; });
}

/// The first header at or behind `from`: it starts a byte before the text. Null when there is none.
const guint8* findVorbisHeader(const guint8* from, const guint8* end) {
    constexpr std::string_view text = "vorbis";
    if (end - from < 1)
        return nullptr;
    const guint8* found = std::search(from + 1, end, text.begin(), text.end());
    return found == end ? nullptr : found - 1;
}

} // namespace

gboolean opus_header_parse(const guint8* data, gsize size, OpusHeader* header) {
    if (data == nullptr || size < shortestHeader || std::memcmp(data, "OpusHead", 8) != 0)
        return FALSE;
    constexpr gsize versionOffset = 8;
    if ((data[versionOffset] & 0xF0) != 0 || data[channelOffset] == 0)
        return FALSE;
    OpusHeader parsed;
    parsed.channels = data[channelOffset];
    parsed.preSkip = static_cast<guint16>(readNumber(data + 10, 2));
    parsed.sampleRate = readNumber(data + 12, 4);
    parsed.outputGain = static_cast<gint16>(readNumber(data + 16, 2));
    parsed.mappingFamily = data[familyOffset];
    const bool valid =
        parsed.mappingFamily == 0 ? parseStereo(parsed) : parseMapping(data, size, parsed);
    if (valid)
        *header = parsed;
    return valid ? TRUE : FALSE;
}

GstCaps* gst_opus_create_caps_from_header(const guint8* data, gsize size) {
    OpusHeader header;
    if (!opus_header_parse(data, size, &header))
        return nullptr;
    GstCaps* caps = gst_caps_new_simple(
        "audio/x-opus", "channel-mapping-family", G_TYPE_INT, int{header.mappingFamily}, "channels",
        G_TYPE_INT, int{header.channels}, "stream-count", G_TYPE_INT, int{header.streamCount},
        "coupled-count", G_TYPE_INT, int{header.coupledCount}, nullptr);
    GstStructure* structure = gst_caps_get_structure(caps, 0);
    if (header.sampleRate > 0 && header.sampleRate <= G_MAXINT)
        gst_structure_set(structure, "rate", G_TYPE_INT, static_cast<int>(header.sampleRate),
                          nullptr);
    if (header.mappingFamily != 0)
        setChannelMapping(structure, header);
    setStreamHeader(structure,
                    {copyOf(data, size), copyOf(opusComments.data(), opusComments.size())});
    return caps;
}

gboolean gst_vorbis_set_extra_data(GstCaps* caps, const guint8* data, gsize size) {
    constexpr int needed = 3;
    constexpr std::ptrdiff_t shortestVorbisHeader = 7; // the packet type and the text
    std::vector<GstPtr<GstBuffer>> headers;
    const guint8* const end = data + (data != nullptr ? size : 0);
    const guint8* header = findVorbisHeader(data, end);
    while (header != nullptr) {
        g_assert(data <= header);
        const guint8* next = findVorbisHeader(header + shortestVorbisHeader - 1, end);
        headers.push_back(
            copyOf(header, static_cast<gsize>((next != nullptr ? next : end) - header)));
        header = next;
    }
    if (headers.size() < needed) {
        GST_ERROR("Found only %d Vorbis headers and expected to find at least %d",
                  static_cast<int>(headers.size()), needed);
        return FALSE;
    }
    setStreamHeader(gst_caps_get_structure(caps, 0), headers);
    return TRUE;
}

bool vp9_begins_stream(const guint8* data, gsize size) {
    constexpr gsize shortest = 5;
    constexpr guint32 syncCode = 0x498342;
    if (size < shortest || data[0] >> 6 != 2)
        return false;
    const bool longHeader = (data[0] & 0x30) == 0x30; // profile 3: a bit more
    const guint32 sync = longHeader ? readNumber(data + 1, 4) >> 7 : readNumber(data + 1, 3);
    if ((sync & 0xFFFFFF) != syncCode)
        return false;
    const guint8 marker = data[size - 1];
    if ((marker & 0xE0) != 0xC0)
        return true;
    const gsize frames = (marker & 7) + 1U;
    const gsize indexSize = 2 + frames * (((marker >> 3) & 3) + 1U);
    return indexSize <= size && data[size - indexSize] == marker;
}
