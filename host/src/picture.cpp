#include "host/picture.h"

#include <png.h>

namespace host {

std::string encodePng(const Picture& picture, std::string& error) {
    const auto width = static_cast<std::size_t>(picture.width);
    const auto height = static_cast<std::size_t>(picture.height);
    if (picture.width <= 0 || picture.height <= 0 || picture.rgba.size() != width * height * 4) {
        error = "the picture's size and its bytes do not agree";
        return {};
    }
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(picture.width);
    image.height = static_cast<png_uint_32>(picture.height);
    image.format = PNG_FORMAT_RGBA;

    png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(image);
    std::string bytes(size, '\0');
    if (png_image_write_to_memory(&image, bytes.data(), &size, 0, picture.rgba.data(), 0,
                                  nullptr) == 0) {
        error = image.message;
        png_image_free(&image);
        return {};
    }
    bytes.resize(size);
    return bytes;
}

} // namespace host
