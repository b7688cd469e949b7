#ifndef UVA_GST_IF_REPORTS_H
#define UVA_GST_IF_REPORTS_H

#include "UvaGstIfMedia.h"

#include <array>
#include <string>

/// What the main system is told of the media, as bytes. Reentrant.

/// Sizes in pixels.
struct UvaGstIfVideoFormat {
    int width = 0;
    int height = 0;
    int displayWidth = 0;
    int displayHeight = 0;
    UvaGstIfMedia::Fraction aspectRatio;
    UvaGstIfMedia::Fraction frameRate;
};

/// Marker DE AD BE AF FF 00, then the eight numbers of the format in their order, each as its low
/// 16 bits, the most significant byte first.
std::array<unsigned char, 22> videoFormatRecord(const UvaGstIfVideoFormat& format);

/// The text that names the audio codec. It is sent with its terminating zero.
std::string mediaInfoText(const std::string& codec);

#endif
