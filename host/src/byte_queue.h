#ifndef HOST_BYTE_QUEUE_H
#define HOST_BYTE_QUEUE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace host {

/// Bytes of a stream that is pushed in pieces, taken from the front. What lies within one piece is
/// handed out as it is; what spans several is copied, once. Bound to one thread.
class ByteQueue {
public:
    using Bytes = std::shared_ptr<const std::uint8_t>;

    /// What was given before must be used up: a peek() that found too little has kept it.
    void append(Bytes bytes, std::size_t size);

    std::size_t size() const { return m_kept.left() + m_piece.left(); }
    /// Of the next byte, counted from the beginning of the stream.
    std::uint64_t position() const { return m_position; }

    /// The next bytes, until the next call; null when they are not all there yet. Memory is needed
    /// for what is there, not for what is asked for.
    const std::uint8_t* peek(std::size_t size);
    /// The next bytes, which peek() has found; not null for none.
    Bytes take(std::size_t size);
    /// So many are there.
    void skip(std::size_t size);
    /// Drops all; the stream goes on at this position.
    void clear(std::uint64_t position);

private:
    struct Kept {
        std::shared_ptr<std::vector<std::uint8_t>> bytes;
        std::size_t at = 0;

        std::size_t left() const { return bytes == nullptr ? 0 : bytes->size() - at; }
    };
    struct Piece {
        Bytes bytes;
        std::size_t size = 0;
        std::size_t at = 0;

        std::size_t left() const { return size - at; }
        const std::uint8_t* data() const { return bytes.get() + at; }
    };

    void keep(std::size_t wanted);

    Kept m_kept; ///< in front of the piece
    Piece m_piece;
    std::uint64_t m_position = 0;
};

} // namespace host

#endif
