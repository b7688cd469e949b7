#ifndef HOST_BOX_SOURCE_H
#define HOST_BOX_SOURCE_H

#include "box_reader.h"
#include "file_bytes.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace host {

/// The outermost boxes of a file, one after the other. The bytes are open and outlive it.
class BoxSource {
public:
    explicit BoxSource(FileBytes& bytes) : m_bytes(bytes) {}

    /// Nothing at the end, and where no box begins.
    std::optional<OuterBox> next();
    /// Throws a StreamFault when it is not there as a whole, or is too large to be looked into.
    std::vector<std::uint8_t> bodyOf(const OuterBox& box);
    void goTo(std::uint64_t position) { m_at = position; }

private:
    FileBytes& m_bytes;
    std::uint64_t m_at = 0;
};

} // namespace host

#endif
