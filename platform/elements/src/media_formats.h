#ifndef NOXELEMENTS_MEDIA_FORMATS_H
#define NOXELEMENTS_MEDIA_FORMATS_H

#include "gst_ptr.h"

namespace noxelements {

/// One format that a sink takes.
struct MediaFormat {
    const char* caps;        ///< what arrives; the first row that holds all of it wins
    const char* codec;       ///< short name in "GstNoxAudioFormat"
    const char* parser;      ///< factory of the element before the decoder; null: none is needed
    const char* decoderCaps; ///< what the decoder has to take; null: raw, there is no decoder
};

/// The rows of one sink.
struct MediaFormats {
    const MediaFormat* rows;
    std::size_t count;

    const MediaFormat* begin() const { return rows; }
    const MediaFormat* end() const { return rows + count; }

    /// All rows together, for the pad template.
    GstPtr<GstCaps> templateCaps() const;
    /// The row for fixed caps, or null.
    const MediaFormat* find(const GstCaps* caps) const;
};

extern const MediaFormats videoFormats;
extern const MediaFormats audioFormats;

} // namespace noxelements

#endif
