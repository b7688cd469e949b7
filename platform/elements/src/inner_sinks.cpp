#include "inner_sinks.h"

#include <gst/base/gstbasesink.h>

namespace noxelements {

std::vector<GstPtr<GstElement>> innerSinks(GstBin* bin) {
    std::vector<GstPtr<GstElement>> sinks;
    const GstPtr<GstIterator> children(gst_bin_iterate_recurse(bin));
    GValue item = G_VALUE_INIT;
    for (;;) {
        switch (gst_iterator_next(children.get(), &item)) {
        case GST_ITERATOR_OK:
            if (GST_IS_BASE_SINK(g_value_get_object(&item)))
                sinks.emplace_back(GST_ELEMENT(g_value_dup_object(&item)));
            g_value_reset(&item);
            break;
        case GST_ITERATOR_RESYNC:
            sinks.clear();
            gst_iterator_resync(children.get());
            break;
        default:
            g_value_unset(&item);
            return sinks;
        }
    }
}

GstPtr<GstSample> lastSample(GstBin* bin) {
    for (const auto& sink : innerSinks(bin))
        if (auto* sample = gst_base_sink_get_last_sample(GST_BASE_SINK(sink.get())))
            return GstPtr<GstSample>(sample);
    return nullptr;
}

} // namespace noxelements
