#ifndef HOST_PICTURE_H
#define HOST_PICTURE_H

#include <cstdint>
#include <string>
#include <vector>

namespace host {

/// A captured picture: 4 bytes a pixel (red, green, blue, 255), rows without padding.
struct Picture {
    int width = 0;  ///< pixels
    int height = 0; ///< pixels
    std::vector<std::uint8_t> rgba;
};

/// The bytes of a PNG file; empty, with the error text, when it cannot be made.
std::string encodePng(const Picture& picture, std::string& error);

} // namespace host

#endif
