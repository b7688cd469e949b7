#ifndef HOST_WEBM_IDS_H
#define HOST_WEBM_IDS_H

#include <cstdint>

/// The elements of WebM, with their length markers, as documents write them (RFC 9559).
namespace host::webm {

enum Id : std::uint32_t {
    Ebml = 0x1A45DFA3,
    DocType = 0x4282,
    Segment = 0x18538067,
    SeekHead = 0x114D9B74,
    Info = 0x1549A966,
    TimecodeScale = 0x2AD7B1,
    Duration = 0x4489,
    Tracks = 0x1654AE6B,
    TrackEntry = 0xAE,
    TrackNumber = 0xD7,
    TrackType = 0x83,
    DefaultDuration = 0x23E383,
    CodecId = 0x86,
    CodecPrivate = 0x63A2,
    Name = 0x536E,
    Language = 0x22B59C,
    Video = 0xE0,
    PixelWidth = 0xB0,
    PixelHeight = 0xBA,
    Colour = 0x55B0,
    MatrixCoefficients = 0x55B1,
    BitsPerChannel = 0x55B2,
    ColourRange = 0x55B9,
    TransferCharacteristics = 0x55BA,
    Primaries = 0x55BB,
    MasteringMetadata = 0x55D0,
    PrimaryRX = 0x55D1,
    PrimaryRY = 0x55D2,
    PrimaryGX = 0x55D3,
    PrimaryGY = 0x55D4,
    PrimaryBX = 0x55D5,
    PrimaryBY = 0x55D6,
    WhitePointX = 0x55D7,
    WhitePointY = 0x55D8,
    LuminanceMax = 0x55D9,
    LuminanceMin = 0x55DA,
    Audio = 0xE1,
    SamplingFrequency = 0xB5,
    Channels = 0x9F,
    ContentEncodings = 0x6D80,
    ContentEncoding = 0x6240,
    ContentEncodingType = 0x5033,
    ContentEncryption = 0x5035,
    ContentEncAlgo = 0x47E1,
    ContentEncKeyId = 0x47E2,
    ContentEncAesSettings = 0x47E7,
    AesSettingsCipherMode = 0x47E8,
    Cluster = 0x1F43B675,
    Timecode = 0xE7,
    SimpleBlock = 0xA3,
    BlockGroup = 0xA0,
    BlockOfGroup = 0xA1,
    BlockDuration = 0x9B,
    ReferenceBlock = 0xFB,
    Cues = 0x1C53BB6B,
    Chapters = 0x1043A770,
    Void = 0xEC,
    Tags = 0x1254C367,
    Attachments = 0x1941A469,
};

} // namespace host::webm

#endif
