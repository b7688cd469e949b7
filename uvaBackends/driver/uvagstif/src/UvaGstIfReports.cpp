#include "UvaGstIfReports.h"

#include <cstddef>

std::array<unsigned char, 22> videoFormatRecord(const UvaGstIfVideoFormat& format) {
    std::array<unsigned char, 22> record = {0xde, 0xad, 0xbe, 0xaf, 0xff, 0};
    size_t at = 6;
    for (const int number : {format.width, format.height, format.displayWidth, format.displayHeight,
                             format.aspectRatio.numerator, format.aspectRatio.denominator,
                             format.frameRate.numerator, format.frameRate.denominator}) {
        const auto word = static_cast<unsigned>(number);
        record[at++] = static_cast<unsigned char>(word >> 8 & 0xff);
        record[at++] = static_cast<unsigned char>(word & 0xff);
    }
    return record;
}

std::string mediaInfoText(const std::string& codec) {
    return "<media><audio codec=\"" + codec + "\" lang=\"und\" /></media>";
}
