#ifndef HOST_FRAGMENTED_STREAM_H
#define HOST_FRAGMENTED_STREAM_H

#include "fragmented_file.h"
#include "host/sample_stream.h"
#include "isobmff_parser.h"

#include <deque>
#include <memory>
#include <optional>
#include <string>

namespace host {

/// One stream of a fragmented MP4 that it reads for itself, with the parser of segments.
class FragmentedStream final : public SampleStream, SegmentParser::Output {
public:
    /// The bytes are open, and can be interrupted. `timeOffset` seconds become time 0.
    FragmentedStream(std::unique_ptr<FileBytes> bytes, std::shared_ptr<Interruption> interruption,
                     std::shared_ptr<const FragmentedFile> file, const FragmentedFile::Track& track,
                     double timeOffset);

    const StreamInfo& info() const override { return m_info; }
    Batch read(std::size_t count) override;
    std::string seek(double seconds) override;
    void interrupt() override { m_interruption->interrupt(); }

private:
    void onInit(InitSegment segment) override;
    void onInitData(InitData) override {}
    void onFrames(std::vector<CodedFrame> frames) override;
    void onEvent(EventMessage) override {}
    void onSegmentEnd() override {}

    std::optional<SampleData> next();
    void feed();
    void startAt(const FragmentedFile::Start& start);
    bool readAheadTo(double target);

    const std::unique_ptr<FileBytes> m_bytes;
    const std::shared_ptr<Interruption> m_interruption; ///< of the bytes
    const std::shared_ptr<const FragmentedFile> m_file;
    const FragmentedFile::Track& m_track; ///< in the file
    const double m_timeOffset;
    StreamInfo m_info;

    IsobmffParser m_parser;
    std::uint64_t m_at = 0;                ///< of the file, to be given to the parser
    std::optional<std::uint32_t> m_number; ///< of the track in the movie in force
    double m_latest = 0;                   ///< seconds; decoding time of the frame read last
    bool m_isNewMovie = false;             ///< ... of which no frame has come
    std::deque<SampleData> m_ahead;        ///< read already
    std::optional<std::string> m_end; ///< nothing follows what is read, and what went wrong if so
};

} // namespace host

#endif
