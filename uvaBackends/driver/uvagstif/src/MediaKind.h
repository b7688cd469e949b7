#ifndef MEDIA_KIND_H
#define MEDIA_KIND_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

/// What a decoder decodes; the value is an index.
enum class MediaKind : std::size_t { Audio, Video };

inline constexpr std::array mediaKinds{MediaKind::Audio, MediaKind::Video};

constexpr std::size_t indexOf(MediaKind kind) {
    return static_cast<std::size_t>(kind);
}

/// As sinks and sources say it: "audio", "video".
constexpr const char* nameOf(MediaKind kind) {
    constexpr std::array names{"audio", "video"};
    return names[indexOf(kind)];
}

/// In masks of kinds: 1 audio, 2 video.
constexpr uint32_t bitOf(MediaKind kind) {
    return 1U << indexOf(kind);
}

/// None for any other text, and for null.
constexpr std::optional<MediaKind> mediaKindOf(const char* name) {
    for (const auto kind : mediaKinds)
        if (name && std::string_view(name) == nameOf(kind))
            return kind;
    return std::nullopt;
}

/// The kind behind a sign: "+audio", "-video" and so on.
constexpr std::optional<MediaKind> mediaKindOf(char sign, const char* text) {
    return text && *text == sign ? mediaKindOf(text + 1) : std::nullopt;
}

#endif
