#ifndef NOXELEMENTS_DEVICE_OUTPUT_H
#define NOXELEMENTS_DEVICE_OUTPUT_H

#include "gst_ptr.h"

namespace noxelements {

bool hasDisplay();     ///< an X or Wayland display is named
bool hasSoundDevice(); ///< a sound server is named, or the kernel has a sound card

/// Converters, written as for gst-launch, in front of the best device that opens. The result has a
/// "sink" pad. Null when no device opens or a converter is not installed.
GstPtr<GstElement> makeDeviceChain(const char* converters, GstElementFactoryListType medium);

} // namespace noxelements

#endif
