#include "watch/picture_png.h"

#include "host/picture.h"

namespace qualify {

std::string pngOf(const GreyPicture& picture) {
    host::Picture coloured{picture.width, picture.height, {}};
    coloured.rgba.reserve(picture.luma.size() * 4);
    for (const auto luma : picture.luma)
        coloured.rgba.insert(coloured.rgba.end(), {luma, luma, luma, 255});
    std::string error;
    return picture.luma.empty() ? std::string() : host::encodePng(coloured, error);
}

} // namespace qualify
