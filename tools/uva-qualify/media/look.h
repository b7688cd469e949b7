#ifndef UVA_QUALIFY_LOOK_H
#define UVA_QUALIFY_LOOK_H

#include "media/test_card.h"

#include <string>

namespace qualify {

/// What a picture's test card looks like, against how it was drawn. Levels of 256.
struct Look {
    int width = 0, height = 0; ///< pixels
    double brightness = 0;     ///< by which a patch is too bright or too dark, worst
    double colour = 0;         ///< by which a patch's chroma is off, worst
    double noise = 0;          ///< by which luma or chroma differ inside a patch, worst
    double edge = 0;           ///< by which what is along the edges is off, worst
    bool turned = false;       ///< it is mirrored, or upside down
    std::string worst;         ///< of which patches, in words
};

Look lookAt(const Planes& picture);

} // namespace qualify

#endif
