#include "base/gstnox_debug.h"

GstDebugCategory* gst_backend_debug = nullptr;
GstDebugCategory* gst_backendif_debug = nullptr;
GstDebugCategory* gst_mshell_debug = nullptr;
GstDebugCategory* gst_dbglayer_debug = nullptr;

void createDebugCategories() {
    GST_DEBUG_CATEGORY_INIT(gst_backend_debug, "uvabackend", 0, "UVA media backend (C++ class)");
    GST_DEBUG_CATEGORY_INIT(gst_backendif_debug, "uvabackendif", 0,
                            "UVA media backend (interface)");
    GST_DEBUG_CATEGORY_INIT(gst_mshell_debug, "uvamshell", 0, "UVA media backend (mshell)");
    GST_DEBUG_CATEGORY_INIT(gst_dbglayer_debug, "uvadbg", GST_DEBUG_FG_YELLOW,
                            "UVA debug backend (C++ class)");
}
