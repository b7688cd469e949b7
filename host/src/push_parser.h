#ifndef HOST_PUSH_PARSER_H
#define HOST_PUSH_PARSER_H

#include "byte_queue.h"
#include "host/segment_parser.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace host {

/// What the parsers of all formats have in common: bytes go in, steps take them apart, frames come
/// out together, and a fault stays.
class PushParser : public SegmentParser {
public:
    std::string append(std::shared_ptr<const std::uint8_t> bytes, std::size_t size) final;
    State state() const final { return m_state; }

protected:
    explicit PushParser(Output& output) : m_output(output) {}

    /// Takes what comes next. Answers whether it could get on: false when it is not all there.
    /// Throws a StreamFault.
    virtual bool step() = 0;

    /// Passes over what is in front of this place. Answers whether it got there.
    bool skipTo(std::uint64_t place);
    void add(CodedFrame frame);
    /// Gives the frames that have been added.
    void flush();
    /// Drops bytes and fault; what is appended next is at this place in the stream.
    void restartAt(std::uint64_t place);

    Output& m_output;
    ByteQueue m_bytes;
    State m_state = State::Waiting;

private:
    std::string m_fault;
    std::vector<CodedFrame> m_frames; ///< to be given
};

} // namespace host

#endif
