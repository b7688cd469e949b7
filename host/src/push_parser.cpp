#include "push_parser.h"

#include "box_reader.h"

#include <algorithm>
#include <utility>

namespace host {

std::string PushParser::append(std::shared_ptr<const std::uint8_t> bytes, std::size_t size) {
    if (!m_fault.empty() || size == 0)
        return m_fault;
    m_bytes.append(std::move(bytes), size);
    try {
        while (step()) {
        }
    } catch (const StreamFault& fault) {
        m_fault = fault.text;
    }
    flush();
    return m_fault;
}

bool PushParser::skipTo(std::uint64_t place) {
    const auto left = place - m_bytes.position();
    const auto count = std::min<std::uint64_t>(left, m_bytes.size());
    m_bytes.skip(static_cast<std::size_t>(count));
    return count == left;
}

void PushParser::add(CodedFrame frame) {
    constexpr std::size_t mostAtOnce = 4096;
    m_frames.push_back(std::move(frame));
    if (m_frames.size() == mostAtOnce)
        flush();
}

void PushParser::flush() {
    if (!m_frames.empty())
        m_output.onFrames(std::exchange(m_frames, {}));
}

void PushParser::restartAt(std::uint64_t place) {
    m_bytes.clear(place);
    m_state = State::Waiting;
    m_fault.clear();
}

} // namespace host
