#include "opus_caps.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace noxelements {

namespace {

/// First and last byte of each number behind the channel count.
constexpr std::pair<gsize, gsize> numbers[] = {{10, 12}, {12, 16}, {16, 18}};
constexpr gsize shortestHeader = 19;

GstPtr<GstBuffer> reordered(GstBuffer* header) {
    GstPtr<GstBuffer> copy(gst_buffer_copy_deep(header));
    GstMapInfo map;
    if (gst_buffer_get_size(header) < shortestHeader ||
        !gst_buffer_map(copy.get(), &map, GST_MAP_READWRITE))
        return nullptr;
    for (const auto& [begin, end] : numbers)
        std::reverse(map.data + begin, map.data + end);
    gst_buffer_unmap(copy.get(), &map);
    return copy;
}

} // namespace

GstPtr<GstCaps> opusCapsForDecoder(const GstCaps* caps) {
    if (gst_caps_get_size(caps) == 0)
        return nullptr;
    const auto* structure = gst_caps_get_structure(caps, 0);
    const auto* headers = gst_structure_get_value(structure, "streamheader");
    if (!gst_structure_has_name(structure, "audio/x-opus") ||
        !gst_structure_has_field(structure, "codec_data") || !headers ||
        !GST_VALUE_HOLDS_ARRAY(headers) || gst_value_array_get_size(headers) < 2)
        return nullptr;
    const auto* first = gst_value_array_get_value(headers, 0);
    const auto header =
        GST_VALUE_HOLDS_BUFFER(first) ? reordered(gst_value_get_buffer(first)) : nullptr;
    if (!header)
        return nullptr;

    GstPtr<GstCaps> translated(gst_caps_copy(caps));
    auto* changed = gst_caps_get_structure(translated.get(), 0);
    GValue array = G_VALUE_INIT;
    g_value_init(&array, GST_TYPE_ARRAY);
    GValue value = G_VALUE_INIT;
    g_value_init(&value, GST_TYPE_BUFFER);
    gst_value_set_buffer(&value, header.get());
    gst_value_array_append_and_take_value(&array, &value);
    gst_value_array_append_value(&array, gst_value_array_get_value(headers, 1));
    gst_structure_take_value(changed, "streamheader", &array);
    gst_structure_remove_field(changed, "codec_data");
    return translated;
}

} // namespace noxelements
