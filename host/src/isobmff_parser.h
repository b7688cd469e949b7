#ifndef HOST_ISOBMFF_PARSER_H
#define HOST_ISOBMFF_PARSER_H

#include "byte_queue.h"
#include "frame_memory.h"
#include "host/segment_parser.h"
#include "isobmff_fragment.h"
#include "push_parser.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace host {

/// Of fragmented MP4 (ISO/IEC 14496-12), from the outermost boxes on. What it holds is the box that
/// is not complete yet, and the 'moof' whose samples come.
class IsobmffParser final : public PushParser {
public:
    IsobmffParser(Output& output, StreamRules rules) : PushParser(output), m_rules(rules) {}

    void reset() override { continueAt(m_bytes.position() + m_bytes.size()); }

    /// As reset(), and what is appended next is at this place in the file.
    void continueAt(std::uint64_t position);
    /// No box has begun, and no samples are to come.
    bool isBetweenBoxes() const {
        return m_step == Step::Header && m_bytes.size() == 0 && !m_fragment;
    }

private:
    /// What is read next.
    enum class Step { Header, Box, Skip, Media };
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

    bool step() override;
    // Each answers as step().
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
    void addTo(SampleRun& run, CodedFrame frame);
    void endFragment();

    const StreamRules m_rules;
    Step m_step = Step::Header;
    OuterBox m_box;

    std::shared_ptr<const Movie> m_movie;
    std::map<std::uint32_t, std::int64_t> m_nextDts;
    std::vector<EventMessage> m_events; ///< whose time counts from the next fragment's

    // The fragment whose samples come.
    ByteQueue::Bytes m_fragmentBytes;
    std::optional<Fragment> m_fragment;
    std::vector<Extent> m_extents;  ///< in the order of their places
    std::size_t m_extent = 0;       ///< the next one
    bool m_isOrdered = true;        ///< samples come as they are decoded, behind their vectors
    std::vector<Waiting> m_waiting; ///< until the end of one that is not
    FrameMemory m_memory;
};

} // namespace host

#endif
