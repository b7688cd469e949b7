#ifndef HOST_SAMPLE_STREAM_H
#define HOST_SAMPLE_STREAM_H

#include "host/sample.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace host {

/// Names a source of a media element, towards the backend too.
using SourceId = unsigned int;

/// What a media source is told of an elementary stream. A plain value.
struct StreamInfo {
    /// What is in it.
    enum class Kind { Audio, Video };

    Kind kind = Kind::Video;
    std::string mimeType; ///< for UVABackend::SourceDescription, e.g. "video/x-h264"
    std::string codec;    ///< short name for messages, e.g. "h264"
    double duration = 0;  ///< seconds from time 0 to the end of the last sample; 0: unknown
};

/// The samples of one elementary stream in decoding order, in the form that a backend takes them.
/// What fills it - a demuxer that pulls from a file, a parser into which segments are pushed - is
/// of no concern to who reads. Bound to one thread, but for interrupt().
class SampleStream {
public:
    /// What read() answers.
    struct Batch {
        std::vector<std::unique_ptr<Sample>> samples;
        bool ended = false; ///< nothing follows these samples
        std::string error;  ///< nothing can follow these samples, and why; one line
    };

    /// What happens to a stream that is filled while it is read.
    struct Change {
        enum class Kind {
            Arrived,  ///< more may be read where there was nothing
            Replaced, ///< samples that have been read since the last seek are gone, or others now
            Reopened, ///< the end that was told is none any more
        };
        Kind kind = Kind::Arrived;
        double until = 0; ///< Replaced: the end of the latest of those samples, seconds
    };
    using Listener = std::function<void(const Change& change)>;

    virtual ~SampleStream();

    /// What the stream is.
    virtual const StreamInfo& info() const = 0;

    /// At most `count` samples, fewer when the stream ends or fails. An empty batch that is neither
    /// ended nor failed: nothing is there yet, ask again later. May block on files and networks.
    virtual Batch read(std::size_t count) = 0;

    /// What is read next begins with the last sample at or before this time from which decoding can
    /// start (with the first one if there is none), and goes on to the end. Seconds. Answers what
    /// went wrong, empty when nothing did. May block.
    virtual std::string seek(double seconds) = 0;

    /// A call that blocks, and all later ones, fail soon. Any thread.
    virtual void interrupt() = 0;

    /// Nothing of it blocks: it is read where its samples are wanted, without a thread.
    virtual bool isImmediate() const { return false; }

    /// From now on the listener, in place of an earlier one, hears of changes: on the thread that
    /// makes them, under no lock. Empty: none. A call may be under way when this returns. Streams
    /// that do not change call none.
    virtual void listen(Listener listener);
};

} // namespace host

#endif
