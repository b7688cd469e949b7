#ifndef UTIL_FILE_TREE_H
#define UTIL_FILE_TREE_H

#include "util/outcome.h"

#include <string>
#include <sys/types.h>

/// Files, folders and trees. On the way to the last name of a path links are followed as ever; the
/// last name, and all that is below it, never. Modes are taken as they are, whatever the umask. All
/// functions are reentrant; none is a cancellation point.

/// An empty file that was not there.
Outcome createFile(const std::string& path, mode_t mode = 0644);

/// A file, or a link, pipe or device itself. No folder.
Outcome removeFile(const std::string& path);

/// A folder that was not there.
Outcome createFolder(const std::string& path, mode_t mode = 0755);

/// The folders of `below`, a relative path such as "a/b/c" without "..", inside the folder `base`:
/// those that are missing. No link inside `base` is followed.
Outcome createFolders(const std::string& base, const std::string& below, mode_t mode = 0755);

/// An empty folder.
Outcome removeFolder(const std::string& path);

enum class Mounts {
    Left,   ///< what is mounted in the tree is left alone, and is an error
    Emptied ///< it is emptied, too; what it is mounted on stays, with the folders on the way to it
};

/// A folder with all that is in it, or a file. It removes what it can; the outcome is the first
/// thing that it could not. However deep the tree is, and whoever moves or exchanges parts of it
/// meanwhile: it takes four descriptors, and goes nowhere but down and back the same way. Needs
/// /proc.
Outcome removeTree(const std::string& path, Mounts mounts = Mounts::Left);

#endif
