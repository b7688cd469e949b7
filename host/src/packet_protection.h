#ifndef HOST_PACKET_PROTECTION_H
#define HOST_PACKET_PROTECTION_H

#include "host/sample.h"
#include "mp4_protection.h"

extern "C" {
#include <libavcodec/packet.h>
}

#include <cstddef>
#include <cstdint>
#include <string>

namespace host {

/// How a packet of an MP4 track is encrypted: nothing for a clear one. Where `track` says it
/// otherwise than the packet, that holds; it may be null. Answers what is wrong.
std::string takeMp4Protection(const AVPacket& packet, const TrackProtection* track,
                              Protection& protection);

/// Takes what a frame of an encrypted WebM track begins with - whether and how it is encrypted -
/// off its front. Answers what is wrong.
std::string takeWebmProtection(const std::string& keyId, const std::uint8_t*& bytes,
                               std::size_t& size, Protection& protection);

} // namespace host

#endif
