// Any bytes as an Opus header: what is read lies within them and describes channels that exist, the
// caps say the same, and what is refused leaves the record alone.

#include "codec/codecheaders.h"
#include "gst_once.h"
#include "base/gst_ptr.h"

#include <algorithm>

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::startGst();
    OpusHeader header;
    const bool valid = opus_header_parse(data, size, &header);
    const auto caps = GstPtr<GstCaps>::adopt(gst_opus_create_caps_from_header(data, size));
    require(valid == static_cast<bool>(caps));
    if (!valid) {
        require(header.channels == 0 && header.streamCount == 0);
        return 0;
    }
    const int decoded = header.streamCount + header.coupledCount;
    require(header.streamCount > 0 && header.coupledCount <= header.streamCount && decoded <= 255);
    require(std::all_of(header.mapping.begin(), header.mapping.begin() + header.channels,
                        [decoded](int index) { return index == 255 || index < decoded; }));
    const auto* structure = gst_caps_get_structure(caps.get(), 0);
    int channels = 0;
    require(gst_structure_get_int(structure, "channels", &channels) && channels == header.channels);
    const auto* mapping = gst_structure_get_value(structure, "channel-mapping");
    require((mapping != nullptr) == (header.mappingFamily != 0));
    require(mapping == nullptr || gst_value_array_get_size(mapping) == header.channels);
    return 0;
}
