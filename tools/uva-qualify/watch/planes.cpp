#include "watch/planes.h"

#include <algorithm>
#include <cmath>

namespace qualify {

namespace {

// BT.601 between R'G'B' of 0 to 255 and Y'CbCr of 16 to 235 and 240.
constexpr double redShare = 0.299, blueShare = 0.114, greenShare = 1 - redShare - blueShare;
constexpr double lumaScale = 219.0 / 255, chromaScale = 224.0 / 255;

std::uint8_t byteOf(double value) {
    return static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0, 255.0)));
}

/// Appends a pixel.
void addPixel(std::vector<std::uint8_t>& rgba, const Colour& colour) {
    const double luma = (colour.y - 16) / lumaScale;
    const double blue = luma + (colour.cb - 128) / chromaScale * 2 * (1 - blueShare);
    const double red = luma + (colour.cr - 128) / chromaScale * 2 * (1 - redShare);
    const double green = (luma - redShare * red - blueShare * blue) / greenShare;
    rgba.insert(rgba.end(), {byteOf(red), byteOf(green), byteOf(blue), 255});
}

} // namespace

Planes planesOf(const host::Picture& picture) {
    Planes planes;
    planes.width = planes.chromaWidth = picture.width;
    planes.height = planes.chromaHeight = picture.height;
    for (std::size_t i = 0; i + 3 < picture.rgba.size(); i += 4) {
        const double red = picture.rgba[i], green = picture.rgba[i + 1], blue = picture.rgba[i + 2];
        const double luma = redShare * red + greenShare * green + blueShare * blue;
        planes.luma.push_back(byteOf(16 + lumaScale * luma));
        planes.cb.push_back(byteOf(128 + chromaScale * (blue - luma) / (2 * (1 - blueShare))));
        planes.cr.push_back(byteOf(128 + chromaScale * (red - luma) / (2 * (1 - redShare))));
    }
    return planes;
}

std::string pngOf(const Planes& picture) {
    host::Picture coloured{picture.width, picture.height, {}};
    coloured.rgba.reserve(picture.luma.size() * 4);
    const auto width = static_cast<std::size_t>(picture.width);
    for (std::size_t i = 0; i < picture.luma.size(); ++i) {
        Colour colour{static_cast<double>(picture.luma[i])};
        if (!picture.cb.empty()) {
            const auto column = i % width * static_cast<std::size_t>(picture.chromaWidth) / width;
            const auto row = i / width * static_cast<std::size_t>(picture.chromaHeight) /
                             static_cast<std::size_t>(picture.height);
            const auto at = row * static_cast<std::size_t>(picture.chromaWidth) + column;
            colour.cb = picture.cb[at];
            colour.cr = picture.cr[at];
        }
        addPixel(coloured.rgba, colour);
    }
    std::string error;
    return picture.luma.empty() ? std::string() : host::encodePng(coloured, error);
}

} // namespace qualify
