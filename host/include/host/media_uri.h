#ifndef HOST_MEDIA_URI_H
#define HOST_MEDIA_URI_H

#include <string>
#include <string_view>

namespace host {

/// What toMediaUri() answers. A plain value.
struct MediaUri {
    std::string uri;   ///< empty: see `error`
    std::string error; ///< why it cannot be opened, without the name, one line
};

/// The URI that a backend takes for what a user named: a URL (scheme://) as it is, a path as a
/// `file:` URI. Files must exist, be readable and no directory. Touches the file system.
MediaUri toMediaUri(const std::string& name);

/// A path as a `file:` URI; a relative one counts from the working directory. The path's bytes are
/// kept whatever their encoding.
std::string fileUri(const std::string& path);

/// The host name in a URL whose media comes over a network; empty for files and plain names.
std::string serverOf(std::string_view uri);

} // namespace host

#endif
