#ifndef HOST_SEGMENT_PARSER_H
#define HOST_SEGMENT_PARSER_H

#include "host/sample.h"
#include "host/sample_stream.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace host {

/// A track of audio or video, as an initialization segment describes it. A plain value.
struct TrackDescription {
    std::uint32_t id = 0; ///< as the container numbers it
    StreamInfo info;
    std::string codecs;   ///< RFC 6381, e.g. "avc1.64001f"
    std::string language; ///< BCP 47 or ISO 639-2 as the container has it; empty: undetermined
    std::string label;
    std::shared_ptr<const UVAStreamConfig> config;        ///< of samples that name no other
    Protection::Scheme scheme = Protection::Scheme::None; ///< None: the track begins clear
    KeyBytes keyId = {};                                  ///< of encrypted samples that name none
};

/// What a key system makes a request for a licence from (EME, initialization data).
struct InitData {
    std::string type; ///< "cenc": 'pssh' boxes that follow one another; "webm": a key id
    std::vector<std::uint8_t> data;
};

/// A plain value.
struct InitSegment {
    std::vector<TrackDescription> tracks; ///< audio and video; others are skipped
    double duration = 0;                  ///< seconds; infinity: not said
    std::vector<InitData> initData;
};

/// A coded frame (MSE). Times are the segment's own: they may be negative, and decoding times may
/// be behind presentation times. Whoever hands the sample on moves them to where they belong.
struct CodedFrame {
    std::uint32_t track = 0; ///< TrackDescription::id
    SampleData sample;       ///< the payload as a backend takes it
};

/// An event message ('emsg', ISO/IEC 23009-1). A plain value.
struct EventMessage {
    std::string schemeIdUri;
    std::string value;
    std::uint32_t id = 0;
    double presentationTime = 0; ///< seconds, as the segment counts
    double duration = 0;         ///< seconds; infinity: unknown
    std::vector<std::uint8_t> data;
};

/// Takes a byte stream apart (MSE byte stream formats ISO BMFF and WebM) that is pushed into it, in
/// pieces of any size. All bytes are distrusted. Bound to one thread.
class SegmentParser {
public:
    /// Called from append(), in the order of the stream. A call into the parser from here is an
    /// error of the caller's.
    class Output {
    public:
        virtual ~Output();
        /// An initialization segment is complete.
        virtual void onInit(InitSegment segment) = 0;
        /// In the middle of media: keys that are to be had for what follows.
        virtual void onInitData(InitData data) = 0;
        /// Never none. Of one track they are in decoding order.
        virtual void onFrames(std::vector<CodedFrame> frames) = 0;
        /// An event message, where it stands in the stream.
        virtual void onEvent(EventMessage event) = 0;
        virtual void onSegmentEnd() = 0; ///< of a media segment: all of its frames have been given
    };

    /// What is being parsed: between segments, or which.
    enum class State { Waiting, InitSegment, MediaSegment };

    /// For a content type as addSourceBuffer() takes it, e.g. `video/mp4; codecs="avc1.64001f"`; of
    /// it only the type counts. Null: no parser for it. The output outlives the parser.
    static std::unique_ptr<SegmentParser> make(const std::string& mimeType, Output& output);

    virtual ~SegmentParser();

    /// Frames are given as soon as they are complete, and share the owner of these bytes where
    /// they need not be changed: the bytes stay as they are. Answers what is wrong with the stream,
    /// one line that names the place; empty when nothing is. Behind a fault nothing is taken until
    /// reset(): the answer stays.
    virtual std::string append(std::shared_ptr<const std::uint8_t> bytes, std::size_t size) = 0;

    /// Drops a segment that is not finished: what is appended next begins one. The last
    /// initialization segment stays in force (MSE, Reset Parser State).
    virtual void reset() = 0;

    /// What is being parsed; MSE's append state.
    virtual State state() const = 0;
};

} // namespace host

#endif
