#ifndef NOXELEMENTS_OPUS_CAPS_H
#define NOXELEMENTS_OPUS_CAPS_H

#include "gst_ptr.h"

namespace noxelements {

/// Opus of a media source comes with its header as "codec_data", whose numbers are most significant
/// byte first, as in an MP4 "dOps" box. A PC's decoder wants them in the order of Ogg (RFC 7845): so
/// do these caps. Null for all other caps.
GstPtr<GstCaps> opusCapsForDecoder(const GstCaps* caps);

} // namespace noxelements

#endif
