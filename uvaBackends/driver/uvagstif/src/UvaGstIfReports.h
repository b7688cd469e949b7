#ifndef UVA_GST_IF_REPORTS_H
#define UVA_GST_IF_REPORTS_H

#include <array>
#include <string>

/// What the main system is told of the media, as bytes. Reentrant.

struct UvaGstIfFraction {
    int numerator = 0;
    int denominator = 0;
};

/// Sizes in pixels.
struct UvaGstIfVideoFormat {
    int width = 0;
    int height = 0;
    int displayWidth = 0;
    int displayHeight = 0;
    UvaGstIfFraction aspectRatio;
    UvaGstIfFraction frameRate;
};

/// What an application message of a pipeline says, as far as the main system is concerned. What it
/// does not say is 0 or null; its texts live as long as the message.
struct UvaGstIfApplicationMessage {
    const char* name = nullptr;
    const char* type = nullptr;  ///< of "GstNoxDecoderNeeded"
    const char* codec = nullptr; ///< of "GstNoxAudioFormat"
    UvaGstIfVideoFormat format;  ///< of "GstNoxVideoFormat"
};

/// Marker DE AD BE AF FF 00, then the eight numbers of the format in their order, each as its low
/// 16 bits, the most significant byte first.
std::array<unsigned char, 22> videoFormatRecord(const UvaGstIfVideoFormat& format);

/// The text that names the audio codec. It is sent with its terminating zero.
std::string mediaInfoText(const std::string& codec);

#endif
