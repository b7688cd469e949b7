#ifndef HOST_CAPABILITY_QUERY_H
#define HOST_CAPABILITY_QUERY_H

#include "uva/uva_media_backend.h"

#include <optional>
#include <string>
#include <vector>

namespace host {

class BackendLibrary;

/// What a question may say beside the type and the codecs. Case does not matter in the names.
struct ContentParameter {
    const char* name;
    std::string UVABackend::ContentDescription::*member;
};
inline constexpr ContentParameter contentParameters[] = {
    {"width", &UVABackend::ContentDescription::width},
    {"height", &UVABackend::ContentDescription::height},
    {"framerate", &UVABackend::ContentDescription::framerate},
    {"bitrate", &UVABackend::ContentDescription::bitrate},
    {"channels", &UVABackend::ContentDescription::channels},
    {"cryptoblockformat", &UVABackend::ContentDescription::cryptoblockformat},
};

/// A MIME type with parameters, e.g. `video/mp4; codecs="avc1.640028,mp4a.40.2"; width=1920` (RFC
/// 6381, 3). Values are the backend's to judge; other parameters are dropped. Nothing when the text
/// is no content type.
std::optional<UVABackend::ContentDescription> parseContentType(const std::string& text);

/// What askCanPlay() answers. A plain value.
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
