#ifndef NOXELEMENTS_FACTORIES_H
#define NOXELEMENTS_FACTORIES_H

#include "gst_ptr.h"

namespace noxelements {

/// The installed decoder with the highest rank for these caps, or null.
GstPtr<GstElement> makeDecoder(const GstCaps* caps);

/// The output device with the highest rank for GST_ELEMENT_FACTORY_TYPE_MEDIA_VIDEO or _AUDIO that
/// opens, in READY; null when none does. Never one of this plug-in's own sinks.
GstPtr<GstElement> openDevice(GstElementFactoryListType medium);

} // namespace noxelements

#endif
