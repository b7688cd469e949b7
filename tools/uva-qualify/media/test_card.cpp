#include "media/test_card.h"

#include <algorithm>
#include <iterator>

namespace qualify {

namespace {

/// Chroma of most clips has half as many rows and columns: nothing begins between two of them.
int even(int pixels) {
    return pixels / 2 * 2;
}

// Chroma that is inside RGB with every luma here, by BT.601 and by BT.709.
constexpr double more = 128 + 40, less = 128 - 40;
constexpr double none = 128;

struct Row {
    const char* name;
    Colour colour;
};
constexpr Row greys[] = {{"black", {16, none, none}},         {"dark grey", {60, none, none}},
                         {"grey", {104, none, none}},         {"light grey", {148, none, none}},
                         {"lighter grey", {192, none, none}}, {"white", {235, none, none}}};
constexpr Row colours[] = {{"blue", {128, more, none}},   {"olive", {128, less, none}},
                           {"red", {128, none, more}},    {"teal", {128, none, less}},
                           {"purple", {128, more, more}}, {"green", {128, less, less}}};

} // namespace

Planes Planes::subsampled(int width, int height) {
    Planes planes;
    planes.width = width;
    planes.height = height;
    planes.chromaWidth = (width + 1) / 2;
    planes.chromaHeight = (height + 1) / 2;
    planes.luma.assign(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), 128);
    planes.cb.assign(static_cast<std::size_t>(planes.chromaWidth) *
                         static_cast<std::size_t>(planes.chromaHeight),
                     128);
    planes.cr = planes.cb;
    return planes;
}

TestCard::TestCard(int width, int height) {
    const int edge = even(std::max(4, height / 18));
    const int square = even(height * 15 / 18);
    m_middle = {even((width - square) / 2), even((height - square) / 2), 0, 0};
    m_middle.right = m_middle.left + square;
    m_middle.bottom = m_middle.top + square;

    m_patches = {
        {"upper edge", true, {0, 0, width, edge}, {100, more, less}},
        {"lower edge", true, {0, height - edge, width, height}, {156, less, more}},
        {"left edge", true, {0, edge, edge, height - edge}, {200, 108, 108}},
        {"right edge", true, {width - edge, edge, width, height - edge}, {60, 148, 148}},
    };
    const int across = even((m_middle.left - edge) / 2);
    const auto addColumn = [&](int left, const Row(&rows)[6]) {
        const int count = static_cast<int>(std::size(rows));
        const auto rowAt = [&](int i) { return edge + even((height - 2 * edge) * i / count); };
        for (int i = 0; i < count; ++i)
            m_patches.push_back({rows[i].name,
                                 false,
                                 {left, rowAt(i), left + across, rowAt(i + 1)},
                                 rows[i].colour});
    };
    addColumn(edge, greys);
    addColumn(even(width - edge - across), colours);
}

} // namespace qualify
