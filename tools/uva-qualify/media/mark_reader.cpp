#include "media/mark_reader.h"

#include <zbar.h>

namespace qualify {

struct MarkReader::Scanner {
    zbar::ImageScanner zbar;
};

MarkReader::MarkReader() : m_scanner(std::make_unique<Scanner>()) {
    m_scanner->zbar.set_config(zbar::ZBAR_NONE, zbar::ZBAR_CFG_ENABLE, 0);
    m_scanner->zbar.set_config(zbar::ZBAR_QRCODE, zbar::ZBAR_CFG_ENABLE, 1);
}

MarkReader::~MarkReader() = default;

std::optional<Mark> MarkReader::read(const Planes& picture) {
    zbar::Image image(static_cast<unsigned int>(picture.width),
                      static_cast<unsigned int>(picture.height), "Y800", picture.luma.data(),
                      picture.luma.size());
    if (m_scanner->zbar.scan(image) <= 0)
        return std::nullopt;
    for (auto symbol = image.symbol_begin(); symbol != image.symbol_end(); ++symbol)
        if (const auto mark = parseMark(symbol->get_data()))
            return mark;
    return std::nullopt;
}

} // namespace qualify
