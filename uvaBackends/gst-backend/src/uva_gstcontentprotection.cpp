#include "uva_gstcontentprotection.h"

#include <gst/gst.h>

namespace {

GST_DEBUG_CATEGORY(contentProtectionDebug);

} // namespace

bool InitializeLogging() {
    if (contentProtectionDebug == nullptr)
        GST_DEBUG_CATEGORY_INIT(contentProtectionDebug, "gstuvacontentprotectionhandler", 0,
                                "GstUvaContentProtectionHandler debug");
    return true;
}
