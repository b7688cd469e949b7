#ifndef UVA_QUALIFY_PLANES_H
#define UVA_QUALIFY_PLANES_H

#include "host/picture.h"
#include "media/test_card.h"

#include <string>

namespace qualify {

/// By BT.601. A captured picture has chroma for each pixel.
Planes planesOf(const host::Picture& picture);

/// The bytes of a PNG file; empty: there is no picture.
std::string pngOf(const Planes& picture);

} // namespace qualify

#endif
