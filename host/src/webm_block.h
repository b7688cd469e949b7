#ifndef HOST_WEBM_BLOCK_H
#define HOST_WEBM_BLOCK_H

#include "ebml_reader.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace host {

/// What a Block or a SimpleBlock begins with, and its frames. A view.
class WebmBlock {
public:
    struct Frame {
        const std::uint8_t* bytes;
        std::size_t size;
    };

    /// Throws a StreamFault that names the block.
    explicit WebmBlock(const EbmlReader& body);

    std::uint64_t track() const { return m_track; }
    std::int16_t time() const { return m_time; }         ///< ticks, from the cluster's time on
    bool isKey() const { return (m_flags & 0x80) != 0; } ///< of a SimpleBlock
    /// In their order; throws a StreamFault where the block's lacing is damaged.
    template <typename Visit>
    void forEachFrame(Visit visit) const {
        auto rest = m_rest;
        for (const auto size : takeSizes(rest))
            visit(Frame{rest.take(size), size});
        const auto last = rest.left();
        visit(Frame{rest.take(last), last});
    }

private:
    /// Of all frames but the last, which is the rest.
    std::vector<std::size_t> takeSizes(EbmlReader& rest) const;

    EbmlReader m_rest; ///< behind the flags
    std::uint64_t m_track = 0;
    std::int16_t m_time = 0;
    std::uint8_t m_flags = 0;
};

} // namespace host

#endif
