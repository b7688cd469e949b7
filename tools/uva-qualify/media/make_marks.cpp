// Writes the pictures of a test clip to standard output, planes with chroma of half the size
// ("yuv420p"):
//
//     make_marks CLIP WIDTH HEIGHT RATE COUNT
//
// In the middle of each stands its mark as a QR code, around it the test card; between them a band
// moves, so that an encoder has something to do.

#include "media/mark.h"
#include "media/test_card.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <qrencode.h>
#include <vector>

namespace {

constexpr unsigned char black = 16;
constexpr unsigned char white = 235;
constexpr int quietZone = 4; // modules, on each side (ISO/IEC 18004)

struct FreeCode {
    void operator()(QRcode* code) const { QRcode_free(code); }
};
using Code = std::unique_ptr<QRcode, FreeCode>;

class Canvas {
public:
    Canvas(int width, int height)
        : m_planes(qualify::Planes::subsampled(width, height)), m_card(width, height) {
        for (const auto& patch : m_card.patches())
            draw(patch);
    }

    void drawBand(int number) {
        const auto& card = m_card.patches();
        const int left = card.front().area.bottom, top = left; // an edge is as wide as it is high
        for (int y = top; y < m_planes.height - top; ++y)
            for (int x = left; x < m_planes.width - left; ++x)
                if (!isPatch(x, y))
                    luma(x, y) = static_cast<unsigned char>(64 + (x + y + 3 * number) % 128);
    }
    void draw(const QRcode& code) {
        const auto& square = m_card.middle();
        const int modules = code.width + 2 * quietZone;
        const int scale = std::max(1, (square.right - square.left) / modules);
        const int left = (m_planes.width - modules * scale) / 2;
        const int top = (m_planes.height - modules * scale) / 2;
        for (int y = 0; y < modules * scale; ++y)
            for (int x = 0; x < modules * scale; ++x)
                luma(left + x, top + y) = isDark(code, x / scale, y / scale) ? black : white;
    }
    bool write() const { return write(m_planes.luma) && write(m_planes.cb) && write(m_planes.cr); }

private:
    static bool write(const std::vector<unsigned char>& bytes) {
        return std::fwrite(bytes.data(), 1, bytes.size(), stdout) == bytes.size();
    }
    static bool isDark(const QRcode& code, int x, int y) {
        x -= quietZone;
        y -= quietZone;
        const bool inside = x >= 0 && y >= 0 && x < code.width && y < code.width;
        return inside && (code.data[y * code.width + x] & 1) != 0;
    }

    void draw(const qualify::Patch& patch) {
        const auto& area = patch.area;
        for (int y = area.top; y < area.bottom; ++y)
            for (int x = area.left; x < area.right; ++x) {
                const auto chroma = static_cast<std::size_t>(y / 2 * m_planes.chromaWidth + x / 2);
                luma(x, y) = static_cast<unsigned char>(patch.colour.y);
                m_planes.cb[chroma] = static_cast<unsigned char>(patch.colour.cb);
                m_planes.cr[chroma] = static_cast<unsigned char>(patch.colour.cr);
            }
    }
    bool isPatch(int x, int y) const {
        const auto& patches = m_card.patches();
        return std::any_of(patches.begin(), patches.end(), [x, y](const auto& patch) {
            return x >= patch.area.left && x < patch.area.right && y >= patch.area.top &&
                   y < patch.area.bottom;
        });
    }
    unsigned char& luma(int x, int y) {
        return m_planes
            .luma[static_cast<std::size_t>(y) * static_cast<std::size_t>(m_planes.width) +
                  static_cast<std::size_t>(x)];
    }

    qualify::Planes m_planes;
    const qualify::TestCard m_card;
};

int complain(const char* text) {
    std::fprintf(stderr, "make_marks: %s\n", text);
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 6)
        return complain("usage: make_marks CLIP WIDTH HEIGHT RATE COUNT");
    const int width = std::atoi(argv[2]), height = std::atoi(argv[3]);
    const int rate = std::atoi(argv[4]), count = std::atoi(argv[5]);
    if (width < 64 || height < 64 || rate < 1)
        return complain("a picture has 64 by 64 pixels at least, and a rate above 0");
    Canvas canvas(width, height);
    for (int number = 0; number < count; ++number) {
        const qualify::Mark mark{argv[1][0], number, number * 1000 / rate};
        const Code code(
            QRcode_encodeString(qualify::textOf(mark).c_str(), 1, QR_ECLEVEL_M, QR_MODE_8, 1));
        if (!code)
            return complain("a mark does not fit its code");
        canvas.drawBand(number);
        canvas.draw(*code);
        if (!canvas.write())
            return complain("standard output takes no more");
    }
    return 0;
}
