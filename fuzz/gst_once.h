#ifndef GST_ONCE_H
#define GST_ONCE_H

#include "fuzz_target.h"
#include "plugin/gstnox_plugin.h"

#include <gst/gst.h>

namespace fuzz {

inline void readLine(GstDebugCategory*, GstDebugLevel, const gchar*, const gchar*, gint, GObject*,
                     GstDebugMessage* message, gpointer) {
    gst_debug_message_get(message);
}

/// Starts GStreamer without plug-ins, once. The backend's lines are put together, at all levels,
/// and shown to nobody.
inline void startGst() {
    static const bool started = [] {
        setenv("GST_REGISTRY_DISABLE", "yes", 1);
        gst_init(nullptr, nullptr);
        gst_debug_remove_log_function(nullptr);
        gst_debug_add_log_function(readLine, nullptr, nullptr);
        gst_backend_debug = _gst_debug_category_new("uvabackend", 0, nullptr);
        gst_debug_category_set_threshold(gst_backend_debug, GST_LEVEL_LOG);
        return true;
    }();
    require(started);
}

} // namespace fuzz

#endif
