#ifndef HOST_CODEC_CONVERSION_H
#define HOST_CODEC_CONVERSION_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace host {

// Between the forms in which containers carry codec headers and those in which a media source takes
// them; host/adts.h has that of AAC. Pure functions; all bytes are distrusted.

/// The three headers, which Matroska and libavformat lace (a count less one, the sizes but the last
/// in bytes of up to 255, the packets), back to back. Empty when they are not that.
std::vector<std::uint8_t> joinVorbisHeaders(const std::uint8_t* bytes, std::size_t size);

/// An "OpusHead" whose pre-skip, rate and gain, least significant byte first in containers, are
/// turned. Empty when it is none.
std::vector<std::uint8_t> turnOpusHeader(const std::uint8_t* bytes, std::size_t size);

} // namespace host

#endif
