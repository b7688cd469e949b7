#include "media/look.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace qualify {

namespace {

/// How the picture lies.
struct Turn {
    bool acrossed, over; ///< left and right, top and bottom have changed places
};
constexpr Turn turns[] = {{false, false}, {true, false}, {false, true}, {true, true}};

/// A component of a part of a picture.
struct Tone {
    double mean = 0;
    double spread = 0; ///< standard deviation
};

Area turned(const Area& area, const Turn& turn, int width, int height) {
    auto result = area;
    if (turn.acrossed) {
        result.left = width - area.right;
        result.right = width - area.left;
    }
    if (turn.over) {
        result.top = height - area.bottom;
        result.bottom = height - area.top;
    }
    return result;
}

/// Without what codecs and scalers smear from what is beside it. An edge of the picture stays.
Area inside(Area area, int width, int height) {
    const int blur = std::max(2, height / 60);
    area.left += area.left > 0 ? blur : 0;
    area.top += area.top > 0 ? blur : 0;
    area.right -= area.right < width ? blur : 0;
    area.bottom -= area.bottom < height ? blur : 0;
    return area;
}

/// `area` in pixels of the whole picture, the component in its own.
Tone toneOf(const std::vector<std::uint8_t>& samples, int columns, int rows, const Planes& whole,
            const Area& area) {
    const auto column = [&](int x) { return x * columns / whole.width; };
    const auto row = [&](int y) { return y * rows / whole.height; };
    long long sum = 0, squares = 0, count = 0;
    for (int y = row(area.top); y < row(area.bottom); ++y)
        for (int x = column(area.left); x < column(area.right); ++x) {
            const int value =
                samples[static_cast<std::size_t>(y) * static_cast<std::size_t>(columns) +
                        static_cast<std::size_t>(x)];
            sum += value;
            squares += value * value;
            ++count;
        }
    if (count == 0)
        return {};
    const double mean = static_cast<double>(sum) / static_cast<double>(count);
    const double variance = static_cast<double>(squares) / static_cast<double>(count) - mean * mean;
    return {mean, std::sqrt(std::max(0.0, variance))};
}

/// A picture that has no chroma has that of grey.
Tone chromaOf(const std::vector<std::uint8_t>& samples, const Planes& picture, const Area& area) {
    return samples.empty()
               ? Tone{128, 0}
               : toneOf(samples, picture.chromaWidth, picture.chromaHeight, picture, area);
}

void worsen(double& worst, double value, std::string& words, const char* what, const Patch& patch) {
    if (value <= worst)
        return;
    worst = value;
    words = std::string(what) + " of " + patch.name;
}

Look lookAt(const Planes& picture, const TestCard& card, const Turn& turn) {
    Look look;
    look.width = picture.width;
    look.height = picture.height;
    std::string brightness, colour, noise, edge;
    for (const auto& patch : card.patches()) {
        const auto area = inside(turned(patch.area, turn, picture.width, picture.height),
                                 picture.width, picture.height);
        const auto y = toneOf(picture.luma, picture.width, picture.height, picture, area);
        const auto cb = chromaOf(picture.cb, picture, area);
        const auto cr = chromaOf(picture.cr, picture, area);
        const double luma = std::abs(y.mean - patch.colour.y);
        const double chroma =
            std::max(std::abs(cb.mean - patch.colour.cb), std::abs(cr.mean - patch.colour.cr));
        const double spread = std::max({y.spread, cb.spread, cr.spread});
        if (patch.isEdge) {
            worsen(look.edge, std::max({luma, chroma, spread}), edge, "edge", patch);
            continue;
        }
        worsen(look.brightness, luma, brightness, "brightness", patch);
        worsen(look.colour, chroma, colour, "colour", patch);
        worsen(look.noise, spread, noise, "noise", patch);
    }
    look.worst = brightness + ", " + colour + ", " + noise + ", " + edge;
    return look;
}

} // namespace

Look lookAt(const Planes& picture) {
    const TestCard card(picture.width, picture.height);
    const auto whole = [](const Look& look) { return look.brightness + look.colour + look.edge; };
    auto look = lookAt(picture, card, turns[0]);
    constexpr double alike = 40; // less is no other picture
    for (const auto& turn : turns) {
        auto other = lookAt(picture, card, turn);
        if (whole(other) + alike >= whole(look))
            continue;
        look = std::move(other);
        look.turned = true;
    }
    return look;
}

} // namespace qualify
