#ifndef NOXELEMENTS_PICTURE_H
#define NOXELEMENTS_PICTURE_H

#include "gst_ptr.h"

#include "nox/screen.h"

namespace noxelements {

/// Converts a raw sample to a picture of width × height pixels, or of the sample's own size when
/// both are 0. False, and the picture as it was, for what cannot be converted.
bool convertPicture(GstSample* sample, nox::Picture& picture, int width, int height);

} // namespace noxelements

#endif
