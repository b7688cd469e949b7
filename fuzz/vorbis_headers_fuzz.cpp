// Any bytes as Vorbis codec data: the headers that are found follow one another without a gap up to
// the end, and each has a type in front of its name.

#include "codec/codecheaders.h"
#include "gst_once.h"
#include "base/gst_ptr.h"

#include <cstring>

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::startGst();
    const auto caps = GstPtr<GstCaps>::adopt(gst_caps_new_empty_simple("audio/x-vorbis"));
    const bool found = gst_vorbis_set_extra_data(caps.get(), data, size);
    const auto* headers =
        gst_structure_get_value(gst_caps_get_structure(caps.get(), 0), "streamheader");
    require(found == (headers != nullptr));
    if (!found)
        return 0;
    const guint count = gst_value_array_get_size(headers);
    require(count >= 3);
    size_t total = 0;
    for (guint i = count; i-- > 0;) {
        GstBuffer* header = gst_value_get_buffer(gst_value_array_get_value(headers, i));
        const size_t length = gst_buffer_get_size(header);
        total += length;
        require(length >= 6 && total <= size);
        require(gst_buffer_memcmp(header, 0, data + size - total, length) == 0);
        require(size - total + 7 <= size && memcmp(data + size - total + 1, "vorbis", 6) == 0);
    }
    return 0;
}
