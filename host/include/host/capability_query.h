#ifndef HOST_CAPABILITY_QUERY_H
#define HOST_CAPABILITY_QUERY_H

#include "uva/uva_media_backend.h"

#include <optional>
#include <string>
#include <vector>

namespace host {

class BackendLibrary;

/// A MIME type with its codecs parameter, e.g. `video/mp4; codecs="avc1.640028,mp4a.40.2"` (RFC
/// 6381, 3). Other parameters are dropped. Nothing when the text is no content type.
std::optional<UVABackend::ContentDescription> parseContentType(const std::string& text);

struct CapabilityAnswer {
    bool canPlay = false;
    std::string reason; ///< why not: the smallest part of the question that is refused by itself
};

/// Asks a backend. The backend answers yes or no alone: what is refused is found by asking for the
/// parts.
CapabilityAnswer askCanPlay(UVAMediaBackend& backend,
                            const UVABackend::ContentDescription& description);

/// The MIME types that a backend can play.
std::vector<std::string> supportedTypes(UVAMediaBackend& backend);

} // namespace host

#endif
