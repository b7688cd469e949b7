#ifndef NOXELEMENTS_INNER_SINKS_H
#define NOXELEMENTS_INNER_SINKS_H

#include "gst_ptr.h"

#include <vector>

namespace noxelements {

/// Every GstBaseSink inside the bin, at any depth. Takes object locks only.
std::vector<GstPtr<GstElement>> innerSinks(GstBin* bin);

/// The sample that a sink inside the bin rendered last, or null. Takes object locks only.
GstPtr<GstSample> lastSample(GstBin* bin);

} // namespace noxelements

#endif
