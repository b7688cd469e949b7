#ifndef UVA_QUALIFY_MARK_READER_H
#define UVA_QUALIFY_MARK_READER_H

#include "media/mark.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace qualify {

/// A grey picture, a byte a pixel, rows without padding.
struct GreyPicture {
    int width = 0;  ///< pixels
    int height = 0; ///< pixels
    std::vector<std::uint8_t> luma;
};

/// Reads the marks of pictures. Bound to one thread.
class MarkReader {
public:
    MarkReader();
    ~MarkReader();

    /// Nothing when none can be read.
    std::optional<Mark> read(const GreyPicture& picture);

private:
    struct Scanner;
    const std::unique_ptr<Scanner> m_scanner;
};

} // namespace qualify

#endif
