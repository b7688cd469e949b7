#include "util/mount.h"

#include "util/cancellation_block.h"
#include "util/mount_table.h"
#include "util/scoped_handles.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <iterator>
#include <optional>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace drive_mount {

namespace {

constexpr const char* labels = "/dev/disk/by-label";
constexpr const char* labelPrefix = "LABEL=";

void closeListing(DIR* listing) {
    closedir(listing);
}
using ScopedListing = ScopedResource<DIR*, closeListing, nullptr>;

/// None if there is no such folder, or no right to look.
std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    const ScopedListing listing(opendir(folder.c_str()));
    while (const dirent* const entry = listing ? readdir(listing.get()) : nullptr) {
        if (entry->d_name[0] != '.')
            names.emplace_back(entry->d_name);
    }
    return names;
}

std::string linkTarget(const std::string& path) {
    char target[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    return length < 0 ? "" : std::string(target, static_cast<size_t>(length));
}

std::optional<std::string> realPath(const std::string& path) {
    char real[PATH_MAX];
    if (!realpath(path.c_str(), real))
        return std::nullopt;
    return real;
}

bool isHexadecimal(char digit) {
    return isxdigit(static_cast<unsigned char>(digit)) != 0;
}

/// A label as it is, of a name in the folder of labels: "MY\x20STICK".
std::string labelOf(const std::string& name) {
    std::string label;
    for (size_t at = 0; at < name.size(); ++at) {
        const bool isEscape = name.compare(at, 2, "\\x") == 0 && at + 3 < name.size() &&
                              isHexadecimal(name[at + 2]) && isHexadecimal(name[at + 3]);
        label +=
            isEscape ? static_cast<char>(std::stoi(name.substr(at + 2, 2), nullptr, 16)) : name[at];
        if (isEscape)
            at += 3;
    }
    return label;
}

constexpr const char* wantsNoDevice = "nodev";

/// The lines of the table: "nodev" or nothing, a tab, the type.
std::vector<std::string> typesMarked(const std::string& mark) {
    std::vector<std::string> types;
    std::ifstream table("/proc/filesystems");
    for (std::string line; std::getline(table, line);) {
        const auto tab = line.find('\t');
        if (tab != std::string::npos && line.compare(0, tab, mark) == 0)
            types.push_back(line.substr(tab + 1));
    }
    return types;
}

std::vector<std::string> typesOfDrives() {
    return typesMarked("");
}

bool wantsDevice(const std::string& type) {
    const auto without = typesMarked(wantsNoDevice);
    return std::find(without.begin(), without.end(), type) == without.end();
}

/// Not the type's doing: another will not do better.
bool endsAttempts(int error) {
    constexpr int errors[] = {EPERM, EBUSY, ENOENT,    ENOTDIR, ENOTBLK,
                              ENXIO, ELOOP, ENOMEDIUM, ENOMEM,  EMFILE};
    return std::find(std::begin(errors), std::end(errors), error) != std::end(errors);
}

/// Nothing of that type is on the drive, or nobody knows the type.
bool saysOtherType(int error) {
    return error == EINVAL || error == ENODEV;
}

unsigned long flagsOf(const MountRequest& request, bool readOnly) {
    unsigned long flags = 0;
    for (const auto& [wanted, flag] :
         {std::pair(readOnly, MS_RDONLY), std::pair(!request.mayExecute, MS_NOEXEC),
          std::pair(!request.mayHaveDevices, MS_NODEV),
          std::pair(!request.mayRaisePrivileges, MS_NOSUID)}) {
        if (wanted)
            flags |= flag;
    }
    return flags;
}

/// What is seen at the folder; none: nothing is mounted there.
std::optional<MountEntry> mountOn(const std::string& folder) {
    const auto mounts = readMounts();
    const auto found = std::find_if(mounts.rbegin(), mounts.rend(),
                                    [&](const auto& mount) { return mount.folder == folder; });
    return found == mounts.rend() ? std::nullopt : std::make_optional(*found);
}

std::string joined(const std::vector<std::string>& parts) {
    std::string text;
    for (const auto& part : parts)
        text += (text.empty() ? "" : ", ") + part;
    return text;
}

Outcome notMounted(const MountRequest& request, const std::vector<std::string>& types,
                   const MountAttempt& attempt) {
    if (!saysOtherType(attempt.error))
        return refused("cannot mount " + request.drive + " on " + request.folder, attempt.error);
    const std::string tried =
        types.empty() ? "no type that /proc/filesystems lists" : joined(types);
    return {Outcome::notSupported,
            "cannot mount " + request.drive + ": it holds nothing that can be read as " + tried +
                (request.type.empty()
                     ? ": name its type, load the driver, or format it"
                     : ": see the options, load the driver, or name another type")};
}

Outcome readOnlyRemark(const MountRequest& request, int why) {
    const std::string drive = request.drive + " is mounted for reading only: ";
    if (why == 0)
        return {Outcome::done, drive + "its file system is never written"};
    if (saysOtherType(why))
        return {Outcome::done, drive + "no type writes it as it is: check the drive with fsck"};
    const int said = why == EACCES ? EROFS : why; // of older kernels
    return {Outcome::done, refused(drive + "writing was refused", said).text};
}

bool isAtOrBelow(const std::string& path, const std::string& folder) {
    return path.compare(0, folder.size(), folder) == 0 &&
           (path.size() == folder.size() || path[folder.size()] == '/');
}

/// The paths by which a process may hold a mount, until one does.
class HolderSearch {
public:
    HolderSearch(std::string process, const std::string& folder)
        : m_process("/proc/" + std::move(process) + "/"), m_folder(folder) {}

    std::string findHold() const {
        for (const auto& [link, what] :
             {std::pair("cwd", "works in "), std::pair("root", "has as its root "),
              std::pair("exe", "runs ")}) {
            if (const auto path = linkTarget(m_process + link); isInside(path))
                return what + path;
        }
        for (const auto& name : namesIn(m_process + "fd")) {
            if (const auto path = linkTarget(m_process + "fd/" + name); isInside(path))
                return "has open " + path;
        }
        return findMapping();
    }

    std::string name() const {
        std::ifstream file(m_process + "comm");
        std::string name;
        std::getline(file, name);
        return name;
    }

private:
    bool isInside(const std::string& path) const { return isAtOrBelow(path, m_folder); }

    /// ADDRESSES RIGHTS OFFSET DEVICE INODE    PATH
    std::string findMapping() const {
        std::ifstream maps(m_process + "maps");
        for (std::string line; std::getline(maps, line);) {
            const auto begin = line.find('/');
            if (begin != std::string::npos && isInside(line.substr(begin)))
                return "has mapped " + line.substr(begin);
        }
        return "";
    }

    const std::string m_process;
    const std::string& m_folder;
};

std::string mountsInside(const std::string& folder) {
    std::vector<std::string> inside;
    for (const auto& mount : readMounts()) {
        if (mount.folder != folder && isAtOrBelow(mount.folder, folder))
            inside.push_back(mount.folder);
    }
    return joined(inside);
}

UnmountResult busy(const std::string& folder) {
    UnmountResult result{{Outcome::busy, folder + " is in use"}, findHolders(folder)};
    std::vector<std::string> holders;
    for (const auto& holder : result.holders)
        holders.push_back(holder.name + " (process " + std::to_string(holder.process) + ") " +
                          holder.what);
    auto& text = result.outcome.text;
    if (const auto inside = mountsInside(folder); !inside.empty())
        text += ": unmount first what is mounted inside: " + inside;
    else if (holders.empty())
        text += " by nobody who shows in /proc: run this as root; see swapon --show and losetup";
    else
        text += ": end, or unmount it lazily: " + joined(holders);
    return result;
}

UnmountResult unmountFolder(const std::string& folder, Unmount how) {
    const int flags = UMOUNT_NOFOLLOW | (how == Unmount::Lazily ? MNT_DETACH : 0);
    if (umount2(folder.c_str(), flags) == 0)
        return {{}};
    if (errno == EBUSY)
        return busy(folder);
    return {refused("cannot unmount " + folder, errno)};
}

/// The folders of a drive's mounts, or the one that something is mounted on.
std::vector<std::string> mountedFolders(const std::string& folderOrDrive) {
    const auto real = realPath(folderOrDrive);
    const std::string folder = real.value_or(folderOrDrive); // a drive that is gone has no folder
    if (mountOn(folder))
        return {folder};
    const auto device = findDrive(folderOrDrive);
    std::vector<std::string> folders;
    for (const auto& mount : readMounts()) {
        const bool isIt = mount.device == folderOrDrive || // perhaps it is gone
                          (device.outcome && realPath(mount.device) == device.path);
        if (isIt)
            folders.insert(folders.begin(), mount.folder);
    }
    return folders;
}

} // namespace

} // namespace drive_mount

DriveDevice findDrive(const std::string& drive) {
    using namespace drive_mount;
    std::string path = drive;
    if (drive.rfind(labelPrefix, 0) == 0) {
        const std::string label = drive.substr(std::char_traits<char>::length(labelPrefix));
        const auto names = namesIn(labels);
        const auto found = std::find_if(names.begin(), names.end(),
                                        [&](const auto& name) { return labelOf(name) == label; });
        if (found == names.end())
            return {{Outcome::missing,
                     "no drive has the label '" + label + "': plug it in, or see " + labels}};
        path = labels + ("/" + *found);
    }
    const auto real = realPath(path);
    struct stat info {};
    if (!real || stat(real->c_str(), &info) != 0)
        return {refused("cannot find the drive " + drive, errno)};
    if (!S_ISBLK(info.st_mode))
        return {refused(drive + " is no drive", ENOTBLK)};
    return {{}, *real};
}

MountAttempt
tryMountTypes(const std::vector<std::string>& types, bool readOnly,
              const std::function<int(const std::string& type, bool readOnly)>& attempt) {
    int reason = EINVAL;
    int whyNotWriting = 0;
    const auto ways = readOnly ? std::vector<bool>{true} : std::vector<bool>{false, true};
    for (const bool reading : ways) {
        whyNotWriting = reading && !readOnly ? reason : 0;
        for (const auto& type : types) {
            const int error = attempt(type, reading);
            if (error == 0 || drive_mount::endsAttempts(error))
                return {type, reading, error, whyNotWriting};
            if (!drive_mount::saysOtherType(error))
                reason = error;
        }
    }
    return {{}, true, reason, whyNotWriting};
}

MountResult mountDrive(const MountRequest& request) {
    using namespace drive_mount;
    const CancellationBlock block;
    const auto types = request.type.empty() ? typesOfDrives() : std::vector{request.type};
    const DriveDevice device =
        wantsDevice(request.type) ? findDrive(request.drive) : DriveDevice{{}, request.drive};
    if (!device.outcome)
        return {device.outcome};
    const auto folder = realPath(request.folder);
    if (!folder)
        return {refused("cannot mount on " + request.folder, errno)};
    if (mountOn(*folder))
        return {
            {Outcome::busy, "something is mounted on " + *folder + " already: unmount it first"}};

    const auto attempt =
        tryMountTypes(types, request.readOnly, [&](const std::string& type, bool readOnly) {
            const int failed = mount(device.path.c_str(), folder->c_str(), type.c_str(),
                                     flagsOf(request, readOnly), request.options.c_str());
            return failed == 0 ? 0 : errno;
        });
    if (attempt.error != 0)
        return {notMounted(request, types, attempt)};
    struct statvfs info {};
    const bool isReadOnly = attempt.readOnly || (statvfs(folder->c_str(), &info) == 0 &&
                                                 (info.f_flag & ST_RDONLY) != 0);
    const bool isAsWanted = isReadOnly == request.readOnly;
    return {isAsWanted ? Outcome{} : readOnlyRemark(request, attempt.whyNotWriting), attempt.type,
            isReadOnly};
}

UnmountResult unmountDrive(const std::string& folderOrDrive, Unmount how) {
    using namespace drive_mount;
    const CancellationBlock block;
    const auto folders = mountedFolders(folderOrDrive);
    if (folders.empty())
        return {{Outcome::missing, "nothing is mounted on " + folderOrDrive +
                                       ", nor is that a drive that is mounted: see "
                                       "/proc/self/mountinfo"}};
    for (const auto& folder : folders) {
        if (auto result = unmountFolder(folder, how); !result.outcome)
            return result;
    }
    return {{}};
}

std::vector<MountHolder> findHolders(const std::string& folder) {
    using namespace drive_mount;
    const CancellationBlock block;
    std::vector<MountHolder> holders;
    for (const auto& process : namesIn("/proc")) {
        if (process.find_first_not_of("0123456789") != std::string::npos)
            continue;
        const HolderSearch search(process, folder);
        if (auto hold = search.findHold(); !hold.empty())
            holders.push_back({std::stoi(process), search.name(), std::move(hold)});
    }
    return holders;
}
