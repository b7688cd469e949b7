#ifndef HOST_FRAME_MEMORY_H
#define HOST_FRAME_MEMORY_H

#include <cstddef>
#include <cstdint>
#include <memory>

namespace host {

/// Memory for frames that need a header in front: several share one block, which lives as long as
/// any of them. Bound to one thread; what it gives is not.
class FrameMemory {
public:
    std::shared_ptr<std::uint8_t> take(std::size_t size) {
        if (size > m_left) {
            m_left = size > blockSize ? size : blockSize;
            m_next = std::shared_ptr<std::uint8_t>(new std::uint8_t[m_left],
                                                   std::default_delete<std::uint8_t[]>());
        }
        const auto taken = m_next;
        m_next = {taken, taken.get() + size};
        m_left -= size;
        return taken;
    }

private:
    static constexpr std::size_t blockSize = 16 * 1024;

    std::shared_ptr<std::uint8_t> m_next;
    std::size_t m_left = 0;
};

} // namespace host

#endif
