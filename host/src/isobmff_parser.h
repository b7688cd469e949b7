#ifndef HOST_ISOBMFF_PARSER_H
#define HOST_ISOBMFF_PARSER_H

#include "byte_queue.h"
#include "frame_memory.h"
#include "host/segment_parser.h"
#include "isobmff_fragment.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace host {

/// Of fragmented MP4 (ISO/IEC 14496-12), from the outermost boxes on. What it holds is the box that
/// is not complete yet, and the 'moof' whose samples come.
class IsobmffParser final : public SegmentParser {
public:
    IsobmffParser(Output& output, StreamRules rules) : m_output(output), m_rules(rules) {}

    std::string append(std::shared_ptr<const std::uint8_t> bytes, std::size_t size) override;
    void reset() override { continueAt(m_bytes.position() + m_bytes.size()); }
    State state() const override { return m_state; }

    /// As reset(), and what is appended next is at this place in the file.
    void continueAt(std::uint64_t position);
    /// No box has begun, and no samples are to come.
    bool isBetweenBoxes() const {
        return m_step == Step::Header && m_bytes.size() == 0 && !m_fragment;
    }

private:
    /// What is read next.
    enum class Step { Header, Box, Skip, Media };
    /// An outermost one.
    struct Box {
        std::uint32_t type = 0;
        std::uint64_t position = 0;
        std::size_t headerSize = 0;
        std::uint64_t end = 0; ///< in the stream
    };
    /// A piece of media data.
    struct Extent {
        std::uint64_t position = 0;
        std::size_t run = 0;
        bool isVectors = false;
    };
    struct Waiting {
        std::size_t run = 0;
        CodedFrame frame;
    };

    // Each answers whether it could get on.
    bool readHeader();
    bool readBox();
    bool skipBox();
    bool readMedia();

    void begin();
    void takeMovie(const BoxReader& moov);
    void takeFragment(const BoxReader& moof);
    void takeEvent(BoxReader emsg);
    bool takeVectors(SampleRun& run);
    bool takeSamples(std::size_t index);
    void takeSample(SampleRun& run, std::size_t index);
    void prependAdts(const AdtsFormat& format, const std::uint8_t* bytes, std::size_t size,
                     SampleData& sample);
    void add(SampleRun& run, CodedFrame frame);
    void flush();
    void endFragment();

    Output& m_output;
    const StreamRules m_rules;
    ByteQueue m_bytes;
    State m_state = State::Waiting;
    Step m_step = Step::Header;
    std::string m_fault;
    Box m_box;

    std::shared_ptr<const Movie> m_movie;
    std::map<std::uint32_t, std::int64_t> m_nextDts;
    std::vector<EventMessage> m_events; ///< whose time counts from the next fragment's

    // The fragment whose samples come.
    ByteQueue::Bytes m_fragmentBytes;
    std::optional<Fragment> m_fragment;
    std::vector<Extent> m_extents;    ///< in the order of their places
    std::size_t m_extent = 0;         ///< the next one
    bool m_isOrdered = true;          ///< samples come as they are decoded, behind their vectors
    std::vector<Waiting> m_waiting;   ///< until the end of one that is not
    std::vector<CodedFrame> m_frames; ///< to be given
    FrameMemory m_memory;
};

} // namespace host

#endif
