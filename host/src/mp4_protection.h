#ifndef HOST_MP4_PROTECTION_H
#define HOST_MP4_PROTECTION_H

#include "isobmff_protection.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace host {

/// How the samples of an MP4 track are encrypted, one like the other. A plain value.
struct TrackProtection {
    SampleEncryption encryption;
    std::string fault; ///< not empty: these samples cannot be read, and why
};

/// What libavformat passes over in a 'moov' whose samples are not in fragments: keys that sample
/// groups name, clear groups. By the number of the track; of a track that is not in it, what
/// libavformat tells is right. Nothing for what is damaged.
std::map<std::uint32_t, TrackProtection> readMp4Protection(const BoxReader& moov);

} // namespace host

#endif
