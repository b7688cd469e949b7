#ifndef HOST_TRACK_BUFFER_H
#define HOST_TRACK_BUFFER_H

#include "host/sample_stream.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace host {

/// A frame as a track buffer keeps it.
struct BufferedFrame {
    std::uint64_t sequence = 0; ///< names it; unique in the buffer, growing in decoding order
    std::uint64_t group = 0;    ///< the sequence of the key frame that its decoding starts from
    SampleData sample;          ///< its times are those of the presentation
};

/// The frames of one track that a page has appended and not removed: a store without a rule of its
/// own, changed while it is played. What may be in it - coded frame processing, eviction - is the
/// owner's to decide. Thread-safe.
class TrackBuffer {
public:
    explicit TrackBuffer(StreamInfo info);
    ~TrackBuffer();
    TrackBuffer(const TrackBuffer&) = delete;
    TrackBuffer& operator=(const TrackBuffer&) = delete;

    /// A frame whose sequence is there already takes the place of that one. One whose times are not
    /// finite is left out.
    void add(std::vector<BufferedFrame> frames);
    void remove(const std::vector<std::uint64_t>& sequences); ///< unknown ones do not matter

    /// Whether more is to come. What is added to a buffer that has ended can be read all the same.
    void setEnded(bool ended);

    std::size_t size() const; ///< frames

    /// What is played. It reads in decoding order: from the key frame of the group in which the
    /// time of the last seek lies, group by group, up to a gap, which is longer than 0.15 s and
    /// than twice the longest frame. There it waits for what is missing; behind the last frame it
    /// ends, if the buffer has. Where nothing lies at the time of a seek, it waits too. When frames
    /// under the cursor were replaced, it goes on with the key frame of the group that is there
    /// now.
    ///
    /// It is immediate, see SampleStream, and may outlive the buffer, which then is empty and has
    /// ended. One at a time: an earlier one has nothing to read any more.
    std::unique_ptr<SampleStream> stream();

private:
    struct State;
    class Stream;
    const std::shared_ptr<State> m_state;
};

} // namespace host

#endif
