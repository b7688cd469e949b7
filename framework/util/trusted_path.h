#ifndef UTIL_TRUSTED_PATH_H
#define UTIL_TRUSTED_PATH_H

#include "util/scoped_handles.h"

#include <string>
#include <sys/stat.h>

/// Files and folders that nobody but this process's user and root can have made, changed or put
/// where they are. What was found so stays so, unless one of those two changes it: its path may be
/// used later. All functions are reentrant.
struct TrustedPath {
    ScopedFd place;  ///< opened as a place only; nothing if it is not there or not trusted
    std::string why; ///< why it is not trusted, and what to do; empty if it is, or is not there
};

/// A folder, by its absolute path. It belongs to this user or root, and nobody else may write to
/// it. So does each folder on the way, but to a sticky one (/tmp) others may write: no link is
/// followed out of that.
TrustedPath openTrustedFolder(const std::string& path);

/// The same, but it may be a sticky one itself: a file made in it that did not exist before is this
/// user's.
TrustedPath openFolderForNewFile(const std::string& path);

/// A regular file, no link, in a folder opened before. It belongs to this user or root, and nobody
/// else may write to it. `folderPath` is for the reason.
TrustedPath openTrustedFile(const TrustedPath& folder, const std::string& folderPath,
                            const std::string& name);

/// Whether a file belongs to this process's user or to root.
bool belongsToUsOrRoot(const struct stat& info);

#endif
