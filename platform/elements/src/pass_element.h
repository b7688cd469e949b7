#ifndef NOXELEMENTS_PASS_ELEMENT_H
#define NOXELEMENTS_PASS_ELEMENT_H

#include <gst/gst.h>

namespace noxelements {

/// Registers the elements that do something on a set only and here hand on what they get:
/// "noxvptsfilter" and "edrvessplitter".
bool registerPassElements(GstPlugin* plugin);

} // namespace noxelements

#endif
