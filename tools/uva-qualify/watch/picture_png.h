#ifndef UVA_QUALIFY_PICTURE_PNG_H
#define UVA_QUALIFY_PICTURE_PNG_H

#include "media/mark_reader.h"

#include <string>

namespace qualify {

/// The bytes of a PNG file; empty: there is no picture.
std::string pngOf(const GreyPicture& picture);

} // namespace qualify

#endif
