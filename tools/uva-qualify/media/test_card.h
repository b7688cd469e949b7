#ifndef UVA_QUALIFY_TEST_CARD_H
#define UVA_QUALIFY_TEST_CARD_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qualify {

/// A colour as codecs have it: BT.601, 16 to 235 and 16 to 240.
struct Colour {
    double y = 128, cb = 128, cr = 128;
};

/// A picture in components of a byte, rows without padding. Chroma of any subsampling; none: grey.
struct Planes {
    int width = 0, height = 0; ///< pixels
    std::vector<std::uint8_t> luma;
    int chromaWidth = 0, chromaHeight = 0;
    std::vector<std::uint8_t> cb, cr;

    /// Of the colour that is no colour.
    static Planes subsampled(int width, int height);
};

/// Of pixels; right and bottom are behind the last.
struct Area {
    int left = 0, top = 0, right = 0, bottom = 0;
};

/// A part of the test card that has one colour.
struct Patch {
    const char* name;
    bool isEdge; ///< it reaches to the edge of the picture
    Area area;
    Colour colour;
};

/// What every picture of the test clips has around its mark: patches of grey at the left, of
/// colours at the right, and an edge of another colour on each side, so that no picture looks like
/// itself mirrored or turned.
class TestCard {
public:
    TestCard(int width, int height);

    const std::vector<Patch>& patches() const { return m_patches; }
    /// The square for the mark.
    const Area& middle() const { return m_middle; }

private:
    std::vector<Patch> m_patches;
    Area m_middle;
};

} // namespace qualify

#endif
