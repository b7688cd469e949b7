// Writes the pictures of a test clip to standard output, grey, a byte a pixel:
//
//     make_marks CLIP WIDTH HEIGHT RATE COUNT
//
// In the middle of each stands its mark as a QR code; around it a band moves, so that an encoder
// has something to do.

#include "media/mark.h"

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
        : m_width(width), m_height(height),
          m_pixels(static_cast<std::size_t>(width) * static_cast<std::size_t>(height)) {}

    void drawBand(int number) {
        for (int y = 0; y < m_height; ++y)
            for (int x = 0; x < m_width; ++x)
                at(x, y) = static_cast<unsigned char>(64 + (x + y + 3 * number) % 128);
    }
    void draw(const QRcode& code) {
        const int modules = code.width + 2 * quietZone;
        const int scale = std::max(1, std::min(m_width, m_height) / modules);
        const int left = (m_width - modules * scale) / 2;
        const int top = (m_height - modules * scale) / 2;
        for (int y = 0; y < modules * scale; ++y)
            for (int x = 0; x < modules * scale; ++x)
                at(left + x, top + y) = isDark(code, x / scale, y / scale) ? black : white;
    }
    bool write() const {
        return std::fwrite(m_pixels.data(), 1, m_pixels.size(), stdout) == m_pixels.size();
    }

private:
    unsigned char& at(int x, int y) {
        return m_pixels[static_cast<std::size_t>(y) * static_cast<std::size_t>(m_width) +
                        static_cast<std::size_t>(x)];
    }
    static bool isDark(const QRcode& code, int x, int y) {
        x -= quietZone;
        y -= quietZone;
        const bool inside = x >= 0 && y >= 0 && x < code.width && y < code.width;
        return inside && (code.data[y * code.width + x] & 1) != 0;
    }

    const int m_width, m_height;
    std::vector<unsigned char> m_pixels;
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
