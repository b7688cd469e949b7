#ifndef HOST_ISOBMFF_SAMPLE_ENTRY_H
#define HOST_ISOBMFF_SAMPLE_ENTRY_H

#include "box_reader.h"
#include "host/adts.h"
#include "host/sample_stream.h"
#include "isobmff_protection.h"

#include <memory>
#include <optional>
#include <string>

namespace host {

/// How samples of an MP4 track are coded. Immutable.
struct SampleDescription {
    std::string mimeType; ///< for UVABackend::SourceDescription
    std::string codec;    ///< short name for messages
    std::string codecs;   ///< RFC 6381
    std::shared_ptr<const UVAStreamConfig> config;
    std::optional<AdtsFormat> adts;             ///< each frame gets this in front
    std::optional<SampleEncryption> encryption; ///< none: clear, unless a group says otherwise
    std::string fault; ///< not empty: it cannot be played, and why; one line
};

/// Of a box in 'stsd'. Throws a StreamFault when it is damaged.
SampleDescription readSampleEntry(const BoxReader& entry, StreamInfo::Kind kind);

/// Of the same, how its samples are encrypted alone; nothing for a clear one.
std::optional<SampleEncryption> readEntryEncryption(const BoxReader& entry);

} // namespace host

#endif
