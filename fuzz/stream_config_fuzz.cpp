// Any stream configuration: caps that can be written and read again, or none. Input: a codec by its
// row, which of colour and mastering are there, sizes, rates, both, then the codec data.

#include "base/gst_ptr.h"
#include "codec/codeccaps.h"
#include "gst_once.h"
#include "input.h"
#include "uva/uva_stream_config.h"

#include <iterator>

namespace {

constexpr int codecs[] = {1001, 1013, 1014, 1002, 1004, 1005, 1006,
                          1007, 1009, 2001, 2002, 2007, 2008};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::startGst();
    fuzz::Input input(data, size);
    uint8_t row = 0;
    uint8_t present = 0;
    UVAStreamConfig config;
    UVAStreamConfig::ColorInfo color;
    UVAStreamConfig::MasteringMetadata mastering;
    input.read(row);
    input.read(present);
    for (int* value : {&config.sampleRate, &config.channels, &config.width, &config.height})
        input.read(*value);
    if ((present & 1) != 0) {
        input.read(color);
        config.color = &color;
    }
    if ((present & 2) != 0) {
        input.read(mastering);
        config.mastering = &mastering;
    }
    if (row < std::size(codecs))
        config.codec = codecs[row];
    else
        input.read(config.codec);
    config.codecData = input.rest();
    config.codecDataSize = input.size();

    const auto caps = GstPtr<GstCaps>::adopt(gst_caps_create_from_config(&config));
    if (!caps) {
        require(row >= std::size(codecs) || config.codec == UVAStreamConfig::CODEC_OPUS);
        return 0;
    }
    const GCharPtr text(gst_caps_to_string(caps.get()));
    const auto again = GstPtr<GstCaps>::adopt(gst_caps_from_string(text.get()));
    require(static_cast<bool>(again) && gst_caps_is_strictly_equal(again.get(), caps.get()));
    return 0;
}
