#ifndef UTIL_MOUNT_H
#define UTIL_MOUNT_H

#include "util/outcome.h"

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

/// Removable drives: mounted, unmounted, and who keeps one from being unmounted. All functions are
/// reentrant and no cancellation points; they wait as long as the drive does.

/// What to mount, where and how.
struct MountRequest {
    /// "/dev/sda1", or "LABEL=..." as in /dev/disk/by-label; any name for a given type that
    /// wants no device, such as tmpfs.
    std::string drive;
    std::string folder; ///< is there
    /// Empty: those of /proc/filesystems, in its order. A type whose driver is a module that is not
    /// loaded has to be named.
    std::string type = {};
    std::string options = {}; ///< the file system's own, such as "umask=022"; for a given type
    bool readOnly = false;
    bool mayExecute = false;         ///< else no program on it runs (noexec)
    bool mayHaveDevices = false;     ///< else device files on it lead nowhere (nodev)
    bool mayRaisePrivileges = false; ///< else set-user-ID bits on it do not count (nosuid)
};

/// What came of mountDrive().
struct MountResult {
    Outcome outcome;       ///< done with a text: a drive that is only read, and why
    std::string type = {}; ///< that it was mounted as
    bool isReadOnly = false;
};

/// For writing if any type does that, else for reading only, which is what a damaged or
/// write-protected drive allows.
MountResult mountDrive(const MountRequest& request);

/// What findDrive() answers.
struct DriveDevice {
    Outcome outcome;
    std::string path = {};
};
/// The device of a label ("LABEL=...") or of a path to it: links followed.
DriveDevice findDrive(const std::string& drive);

/// Somebody who uses what is mounted on a folder.
struct MountHolder {
    pid_t process;
    std::string name;
    std::string what; ///< "works in" or "has open" and such, with the path
};

/// What came of unmountDrive().
struct UnmountResult {
    Outcome outcome;
    std::vector<MountHolder> holders = {}; ///< when it is busy
};

enum class Unmount {
    WhenFree, ///< else it is busy
    Lazily    ///< out of sight now; the drive is free when the last user is gone
};

/// What is mounted on a folder, or all mounts of a drive ("/dev/sda1", "LABEL=..."), the latest
/// first. Who holds it is named in the outcome's text, too.
UnmountResult unmountDrive(const std::string& folderOrDrive, Unmount how = Unmount::WhenFree);

/// Each process once, with the first thing by which it holds something at or below the folder, an
/// absolute path without links: a working folder, a root folder, its program, a file that is open
/// or mapped. Touches no file of the drive. Without root's rights only this user's processes show.
std::vector<MountHolder> findHolders(const std::string& folder);

/// What did it, or the best reason, of tryMountTypes().
struct MountAttempt {
    std::string type;
    bool readOnly;
    int error;         ///< 0: it is mounted
    int whyNotWriting; ///< why it is only read; 0: nobody tried
};
/// The order in which types are tried: `attempt` mounts, and gives 0 or an errno. Each for writing,
/// unless only reading is asked for, and then each for reading; an error that is no matter of the
/// type ends it.
MountAttempt
tryMountTypes(const std::vector<std::string>& types, bool readOnly,
              const std::function<int(const std::string& type, bool readOnly)>& attempt);

#endif
