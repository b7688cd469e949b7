#ifndef UVA_QUALIFY_TRACKS_H
#define UVA_QUALIFY_TRACKS_H

#include "clip_player.h"
#include "host/track_buffer.h"
#include "media/clips.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qualify {

/// A stream of a clip, taken apart as a page's media source has it. A plain value.
struct Track {
    host::StreamInfo info;
    std::vector<host::BufferedFrame> frames; ///< in decoding order

    /// The groups of frames whose key frame is shown at or behind one time and before another;
    /// seconds.
    std::vector<host::BufferedFrame> part(double from, double to) const;
    /// With numbers behind those of other tracks in the same buffer.
    Track numberedFrom(std::uint64_t sequence) const;
};

/// The audio and the video of a clip, at most one each; audio first. Empty: it cannot be read.
std::vector<Track> loadTracks(const Clip& clip);
/// The same of streams as `change` makes them of the clip's.
using StreamChange =
    std::function<std::unique_ptr<host::SampleStream>(std::unique_ptr<host::SampleStream>)>;
std::vector<Track> loadTracks(const Clip& clip, const StreamChange& change);

/// Takes one kind out of tracks; one without frames when there is none.
Track trackOf(const std::vector<Track>& tracks, host::StreamInfo::Kind kind);

/// What a page appends to, a buffer a track.
class Buffers {
public:
    explicit Buffers(const std::vector<Track>& tracks);

    /// To be attached, once.
    std::vector<std::unique_ptr<host::SampleStream>> streams();
    void append(const std::vector<Track>& tracks, double from, double to);
    void append(std::size_t index, std::vector<host::BufferedFrame> frames);
    void end();

private:
    std::vector<std::unique_ptr<host::TrackBuffer>> m_buffers;
};

} // namespace qualify

#endif
