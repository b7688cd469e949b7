#include "isobmff_sample_entry.h"

#include "codec_conversion.h"
#include "stream_format.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <utility>

namespace host {

namespace {

/// A sample entry that is being read.
struct Entry {
    std::uint32_t type = 0; ///< in front of encryption
    BoxReader boxes;
    OwnedConfig& config;
    SampleDescription& description;
};

__attribute__((format(printf, 1, 2))) std::string formatted(const char* format, ...) {
    std::array<char, 64> text = {};
    std::va_list values;
    va_start(values, format);
    std::vsnprintf(text.data(), text.size(), format, values);
    va_end(values);
    return text.data();
}

/// Without the quotation marks.
std::string nameOf(std::uint32_t type) {
    std::string name;
    for (int shift = 24; shift >= 0; shift -= 8)
        name += static_cast<char>(type >> shift & 0xff);
    return name;
}

void takeHeaders(Entry& entry, const BoxReader& box) {
    entry.config.headers.assign(box.data(), box.data() + box.left());
}

void readAvc(Entry& entry) {
    constexpr unsigned int high = 100;
    auto avcC = entry.boxes.need(fourLetters("avcC"));
    takeHeaders(entry, avcC);
    avcC.skip(1);
    const unsigned int profile = avcC.u8(), constraints = avcC.u8(), level = avcC.u8();
    entry.description.codecs = formatted(".%02x%02x%02x", profile, constraints, level);
    auto& bits = entry.config.colorInfo.bitsPerChannel;
    bits = 8;
    avcC.skip(1);
    for (const unsigned int mask : {0x1fU, 0xffU}) // sets of sequence, then of pictures
        for (unsigned int sets = avcC.u8() & mask; sets > 0; --sets)
            avcC.skip(avcC.u16());
    if (profile < high || avcC.left() < 2)
        return;
    avcC.skip(1);
    bits += avcC.u8() & 7U;
}

void readHevc(Entry& entry) {
    auto hvcC = entry.boxes.need(fourLetters("hvcC"));
    takeHeaders(entry, hvcC);
    hvcC.skip(1);
    const unsigned int profile = hvcC.u8();
    const auto compatible = hvcC.u32();
    std::array<unsigned int, 6> constraints = {};
    for (auto& part : constraints)
        part = hvcC.u8();
    const unsigned int level = hvcC.u8();
    std::uint32_t reversed = 0;
    for (unsigned int bit = 0; bit < 32; ++bit)
        reversed |= (compatible >> bit & 1) << (31 - bit);
    const char* spaces[] = {"", "A", "B", "C"};
    auto& codecs = entry.description.codecs;
    codecs = formatted(".%s%u.%X.%c%u", spaces[profile >> 6], profile & 31, reversed,
                       (profile & 32) != 0 ? 'H' : 'L', level);
    auto used = constraints.size();
    while (used > 0 && constraints[used - 1] == 0)
        --used;
    for (std::size_t i = 0; i < used; ++i)
        codecs += formatted(".%X", constraints[i]);
    hvcC.skip(4);
    entry.config.colorInfo.bitsPerChannel = 8 + (hvcC.u8() & 7U);
}

void readVpx(Entry& entry) {
    auto vpcC = entry.boxes.need(fourLetters("vpcC"));
    vpcC.skip(4);
    const unsigned int profile = vpcC.u8(), level = vpcC.u8(), packed = vpcC.u8();
    auto& color = entry.config.colorInfo;
    color.bitsPerChannel = packed >> 4;
    color.range = (packed & 1) != 0 ? 2 : 1;
    color.primaries = vpcC.u8();
    color.transfer = vpcC.u8();
    color.matrix = vpcC.u8();
    entry.description.codecs =
        formatted(".%02u.%02u.%02u.%02u.%02u.%02u.%02u.%02u", profile, level, packed >> 4,
                  packed >> 1 & 7, color.primaries, color.transfer, color.matrix, packed & 1);
}

void readAv1(Entry& entry) {
    auto av1C = entry.boxes.need(fourLetters("av1C"));
    av1C.skip(1);
    const unsigned int profile = av1C.u8(), packed = av1C.u8();
    const bool isHigh = (packed & 0x40) != 0, isTwelve = (packed & 0x20) != 0;
    entry.description.codecs =
        formatted(".%u.%02u%c.%02u", profile >> 5, profile & 31, (packed & 0x80) != 0 ? 'H' : 'M',
                  !isHigh    ? 8U
                  : isTwelve ? 12U
                             : 10U);
}

/// The body of the next descriptor (ISO/IEC 14496-1), which must have this tag.
BoxReader descriptor(BoxReader& parent, unsigned int tag) {
    if (parent.u8() != tag)
        parent.fail("has not the descriptor " + std::to_string(tag));
    std::size_t size = 0;
    for (unsigned int i = 0, byte = 0x80; i < 4 && (byte & 0x80) != 0; ++i) {
        byte = parent.u8();
        size = size << 7 | (byte & 0x7f);
    }
    const auto place = parent.place();
    size = std::min(size, parent.left()); // some tell of more than there is
    return BoxReader(parent.take(size), size, parent.type(), place, 0);
}

void readAac(Entry& entry, BoxReader& config, bool isMpeg4) {
    constexpr const char* odd =
        "the AAC stream's object type, sampling rate or channel layout does "
        "not fit an ADTS header";
    auto specific = descriptor(config, 5);
    auto& adts = entry.description.adts;
    adts = parseAudioSpecificConfig(specific.data(), specific.left());
    const unsigned int front = specific.left() >= 2 ? specific.u16() : 0;
    const unsigned int type = front >> 11;
    if (isMpeg4)
        entry.description.codecs += formatted(".%u", type == 31 ? 32 + (front >> 5 & 63) : type);
    if (!adts) {
        entry.description.fault = odd;
        return;
    }
    constexpr unsigned int surround = 7; // a layout of eight
    entry.config.channels = static_cast<int>(adts->channels + (adts->channels == surround ? 1 : 0));
    if (entry.config.sampleRate <= 0)
        entry.config.sampleRate = static_cast<int>(sampleRate(*adts));
}

struct ObjectType {
    unsigned int indication; ///< ISO/IEC 14496-1
    AVCodecID codec;
};
constexpr ObjectType objectTypes[] = {
    {0x40, AV_CODEC_ID_AAC},    {0x66, AV_CODEC_ID_AAC},  {0x67, AV_CODEC_ID_AAC},
    {0x68, AV_CODEC_ID_AAC},    {0x69, AV_CODEC_ID_MP3},  {0x6b, AV_CODEC_ID_MP3},
    {0xa5, AV_CODEC_ID_AC3},    {0xa6, AV_CODEC_ID_EAC3}, {0xa9, AV_CODEC_ID_DTS},
    {0xdd, AV_CODEC_ID_VORBIS},
};

AVCodecID readMpeg4Audio(Entry& entry) {
    auto esds = entry.boxes.need(fourLetters("esds"));
    esds.skip(4);
    auto stream = descriptor(esds, 3);
    stream.skip(2);
    const unsigned int flags = stream.u8();
    stream.skip((flags & 0x80) != 0 ? 2 : 0);
    stream.skip((flags & 0x40) != 0 ? stream.u8() : 0);
    stream.skip((flags & 0x20) != 0 ? 2 : 0);
    auto config = descriptor(stream, 4);
    const unsigned int indication = config.u8();
    config.skip(12);
    entry.description.codecs = formatted(".%02X", indication);
    const auto* found =
        std::find_if(std::begin(objectTypes), std::end(objectTypes),
                     [&](const ObjectType& type) { return type.indication == indication; });
    if (found == std::end(objectTypes))
        return AV_CODEC_ID_NONE;
    if (found->codec == AV_CODEC_ID_AAC)
        readAac(entry, config, indication == 0x40);
    return found->codec;
}

void readOpus(Entry& entry) {
    constexpr int rate = 48000;
    auto dOps = entry.boxes.need(fourLetters("dOps"));
    static constexpr std::uint8_t magic[] = {'O', 'p', 'u', 's', 'H', 'e', 'a', 'd', 1};
    auto& headers = entry.config.headers;
    headers.assign(std::begin(magic), std::end(magic));
    headers.insert(headers.end(), dOps.data() + std::min<std::size_t>(dOps.left(), 1),
                   dOps.data() + dOps.left());
    dOps.skip(1);
    entry.config.channels = dOps.u8();
    entry.config.sampleRate = rate;
    dOps.skip(9);
}

constexpr unsigned int channelsOfMode[] = {2, 1, 2, 3, 3, 4, 4, 5}; ///< 'acmod'

void takeAc3Layout(Entry& entry, unsigned int rateCode, unsigned int mode,
                   unsigned int lowEffects) {
    constexpr int rates[] = {48000, 44100, 32000};
    entry.config.channels = static_cast<int>(channelsOfMode[mode & 7] + (lowEffects & 1));
    if (rateCode < std::size(rates))
        entry.config.sampleRate = rates[rateCode];
}

void readAc3(Entry& entry) {
    auto dac3 = entry.boxes.need(fourLetters("dac3"));
    const auto packed = dac3.u24();
    takeAc3Layout(entry, packed >> 22, packed >> 11, packed >> 10);
}

void readEac3(Entry& entry) {
    auto dec3 = entry.boxes.need(fourLetters("dec3"));
    dec3.skip(2);
    const auto packed = dec3.u24();
    takeAc3Layout(entry, packed >> 22, packed >> 9, packed >> 8);
}

void readNothing(Entry&) {}

using Kind = StreamInfo::Kind;
struct Row {
    std::uint32_t type;
    Kind kind;
    AVCodecID codec;
    void (*read)(Entry& entry);
};
constexpr Row rows[] = {
    {fourLetters("avc1"), Kind::Video, AV_CODEC_ID_H264, readAvc},
    {fourLetters("avc3"), Kind::Video, AV_CODEC_ID_H264, readAvc},
    {fourLetters("hvc1"), Kind::Video, AV_CODEC_ID_HEVC, readHevc},
    {fourLetters("hev1"), Kind::Video, AV_CODEC_ID_HEVC, readHevc},
    {fourLetters("vp08"), Kind::Video, AV_CODEC_ID_VP8, readVpx},
    {fourLetters("vp09"), Kind::Video, AV_CODEC_ID_VP9, readVpx},
    {fourLetters("av01"), Kind::Video, AV_CODEC_ID_AV1, readAv1},
    {fourLetters(".mp3"), Kind::Audio, AV_CODEC_ID_MP3, readNothing},
    {fourLetters("Opus"), Kind::Audio, AV_CODEC_ID_OPUS, readOpus},
    {fourLetters("fLaC"), Kind::Audio, AV_CODEC_ID_FLAC, readNothing},
    {fourLetters("ac-3"), Kind::Audio, AV_CODEC_ID_AC3, readAc3},
    {fourLetters("ec-3"), Kind::Audio, AV_CODEC_ID_EAC3, readEac3},
    {fourLetters("dtsc"), Kind::Audio, AV_CODEC_ID_DTS, readNothing},
};

/// Of what media sources may not take; none when it is not known.
AVCodecID readCodec(Entry& entry, Kind kind) {
    if (entry.type == fourLetters("mp4a") && kind == Kind::Audio)
        return readMpeg4Audio(entry);
    const auto* row = std::find_if(std::begin(rows), std::end(rows), [&](const Row& candidate) {
        return candidate.type == entry.type && candidate.kind == kind;
    });
    if (row == std::end(rows))
        return AV_CODEC_ID_NONE;
    row->read(entry);
    return row->codec;
}

void readVisual(BoxReader& body, OwnedConfig& config) {
    body.skip(24);
    config.width = body.u16();
    config.height = body.u16();
    body.skip(50);
}

void readAudio(BoxReader& body, OwnedConfig& config) {
    body.skip(8);
    const auto version = body.u16(); // of QuickTime, whose later ones are longer
    body.skip(6);
    config.channels = body.u16();
    body.skip(6);
    config.sampleRate = body.u16();
    body.skip(2);
    body.skip(version == 1 ? 16 : version == 2 ? 36 : 0);
}

void readColour(const BoxReader& boxes, OwnedConfig& config) {
    boxes.forEach(fourLetters("colr"), [&](BoxReader colr) {
        const auto type = colr.u32();
        if (type != fourLetters("nclx") && type != fourLetters("nclc"))
            return;
        auto& color = config.colorInfo;
        color.primaries = colr.u16();
        color.transfer = colr.u16();
        color.matrix = colr.u16();
        if (type == fourLetters("nclx"))
            color.range = (colr.u8() & 0x80) != 0 ? 2 : 1;
    });
    config.color = &config.colorInfo;
}

void readMastering(const BoxReader& boxes, OwnedConfig& config) {
    auto mdcv = boxes.find(fourLetters("mdcv"));
    if (!mdcv)
        return;
    const auto chromaticity = [&] { return mdcv->u16() / 50000.0; };
    auto& to = config.masteringMetadata;
    for (double* value : {&to.primaryGX, &to.primaryGY, &to.primaryBX, &to.primaryBY, &to.primaryRX,
                          &to.primaryRY, &to.whitePointX, &to.whitePointY})
        *value = chromaticity();
    to.luminanceMax = mdcv->u32() / 10000.0;
    to.luminanceMin = mdcv->u32() / 10000.0;
    config.mastering = &to;
}

} // namespace

std::optional<SampleEncryption> readEntryEncryption(const BoxReader& entry) {
    const bool isVideo = entry.type() == fourLetters("encv");
    if (!isVideo && entry.type() != fourLetters("enca"))
        return std::nullopt;
    auto boxes = entry;
    OwnedConfig unused;
    isVideo ? readVisual(boxes, unused) : readAudio(boxes, unused);
    return readProtectionScheme(boxes.need(fourLetters("sinf")));
}

SampleDescription readSampleEntry(const BoxReader& box, Kind kind) {
    SampleDescription description;
    const auto config = std::make_shared<OwnedConfig>();
    Entry entry{box.type(), box, *config, description};
    kind == Kind::Video ? readVisual(entry.boxes, *config) : readAudio(entry.boxes, *config);
    if (entry.type == fourLetters("encv") || entry.type == fourLetters("enca")) {
        const auto sinf = entry.boxes.need(fourLetters("sinf"));
        entry.type = sinf.need(fourLetters("frma")).u32();
        description.encryption = readProtectionScheme(sinf);
    }
    const auto codec = readCodec(entry, kind);
    description.codecs = nameOf(entry.type) + description.codecs;
    description.codec = codec == AV_CODEC_ID_NONE ? description.codecs : avcodec_get_name(codec);
    const auto* known = findMediaSourceCodec(codec);
    if (known == nullptr) {
        description.fault = std::string("the ") + (kind == Kind::Video ? "video" : "audio") +
                            " codec " + description.codec + " cannot be played";
        return description;
    }
    if (kind == Kind::Video) {
        readColour(entry.boxes, *config);
        readMastering(entry.boxes, *config);
    }
    description.mimeType = known->mimeType;
    config->codec = known->codec;
    if (!config->headers.empty()) {
        config->codecData = config->headers.data();
        config->codecDataSize = config->headers.size();
    }
    description.config = config;
    return description;
}

} // namespace host
