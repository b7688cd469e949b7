#include "byte_queue.h"

#include <algorithm>
#include <utility>

namespace host {

namespace {

/// Reserved at once for what has not come yet.
constexpr std::size_t largestReserve = 1 << 20;

} // namespace

void ByteQueue::append(Bytes bytes, std::size_t size) {
    keep(m_kept.left() + m_piece.left());
    m_piece = {std::move(bytes), size, 0};
}

/// Moves bytes out of the piece until so many are kept, or it is used up.
void ByteQueue::keep(std::size_t wanted) {
    const auto have = m_kept.left();
    const auto count = wanted > have ? std::min(wanted - have, m_piece.left()) : 0;
    if (count == 0)
        return;
    // What was handed out stays as it is: it may be in this memory.
    if (m_kept.bytes == nullptr || m_kept.bytes.use_count() > 1) {
        auto fresh = std::make_shared<std::vector<std::uint8_t>>();
        fresh->reserve(std::max(have + count, std::min(wanted, largestReserve)));
        if (have > 0)
            fresh->assign(m_kept.bytes->begin() + static_cast<std::ptrdiff_t>(m_kept.at),
                          m_kept.bytes->end());
        m_kept = {std::move(fresh), 0};
    }
    m_kept.bytes->insert(m_kept.bytes->end(), m_piece.data(), m_piece.data() + count);
    m_piece.at += count;
}

const std::uint8_t* ByteQueue::peek(std::size_t size) {
    if (m_kept.left() == 0 && m_piece.left() >= size)
        return m_piece.bytes == nullptr ? reinterpret_cast<const std::uint8_t*>("")
                                        : m_piece.data();
    keep(size);
    return m_kept.left() < size ? nullptr : m_kept.bytes->data() + m_kept.at;
}

ByteQueue::Bytes ByteQueue::take(std::size_t size) {
    const auto* bytes = peek(size);
    Bytes taken;
    if (m_kept.left() > 0)
        taken = {m_kept.bytes, bytes};
    else
        taken = {m_piece.bytes, bytes};
    skip(size);
    return taken;
}

void ByteQueue::skip(std::size_t size) {
    const auto kept = std::min(size, m_kept.left());
    m_kept.at += kept;
    if (m_kept.left() == 0)
        m_kept = {};
    m_piece.at += size - kept;
    if (m_piece.left() == 0)
        m_piece = {};
    m_position += size;
}

void ByteQueue::clear(std::uint64_t position) {
    m_kept = {};
    m_piece = {};
    m_position = position;
}

} // namespace host
