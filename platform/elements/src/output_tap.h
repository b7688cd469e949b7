#ifndef NOXELEMENTS_OUTPUT_TAP_H
#define NOXELEMENTS_OUTPUT_TAP_H

#include "gst_ptr.h"

namespace noxelements {

// What a silent output renders, for the screen's tap, if there is one. Called on the output's
// streaming thread, with its pad; `sink`: the simulated sink around it.

void tapPicture(GstBin* sink, GstBuffer* picture, GstPad* pad, bool still);
void tapSound(GstBin* sink, GstBuffer* sound, GstPad* pad);

} // namespace noxelements

#endif
