#ifndef UTIL_ATOMIC_FILE_H
#define UTIL_ATOMIC_FILE_H

#include <string>
#include <string_view>

/// Writes a file whose path somebody else has named: whole or not at all, in the place of one that
/// is there. The path is absolute and has no hidden part (one that begins with a dot); its folder
/// is there and trusted, or a sticky one such as /tmp, see util/trusted_path.h. The file is this
/// user's alone. Empty when it is done, else why not and what to do. Reentrant.
std::string writeFileAtomically(const std::string& path, std::string_view content);

#endif
