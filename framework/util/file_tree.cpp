#include "util/file_tree.h"

#include "util/cancellation_block.h"
#include "util/file_place.h"

#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace file_tree {

namespace {

constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

void closeListing(DIR* listing) {
    closedir(listing);
}
using ScopedListing = ScopedResource<DIR*, closeListing, nullptr>;

/// Takes the descriptor over.
ScopedListing list(ScopedFd folder) {
    ScopedListing listing(fdopendir(folder.get()));
    if (listing)
        static_cast<void>(folder.release());
    return listing;
}

/// Which mount a descriptor is on. Device numbers do not tell: a part of a file system may be
/// mounted inside itself.
std::optional<int> mountOf(int descriptor) {
    const auto path = "/proc/self/fdinfo/" + std::to_string(descriptor);
    const ScopedFile info(fopen(path.c_str(), "re"));
    char line[128];
    int id = 0;
    while (info && fgets(line, sizeof line, info.get())) {
        if (sscanf(line, "mnt_id: %d", &id) == 1)
            return id;
    }
    return std::nullopt;
}

/// From the folder down, depth first. One folder is open at a time; the way back is "..", with a
/// look whether that is the folder of before.
class Removal {
public:
    Removal(const std::string& path, Mounts mounts) : m_mounts(mounts), m_path(path) {}

    Outcome run() {
        const FilePlace top = openFilePlace(m_path);
        if (!top.outcome)
            return top.outcome;
        if (access("/proc/self/fdinfo", X_OK) != 0)
            return {Outcome::notSupported,
                    "cannot tell what is mounted in " + m_path + ": mount /proc first"};
        m_path = m_path.substr(0, m_path.rfind(top.name));
        if (!enter(ScopedFd(openat(top.folder.get(), ".", folderFlags)), ""))
            return refused("cannot open the folder of " + top.name, errno);
        remove(top.name);
        for (bool isThere = true; isThere && m_levels.size() > 1;) {
            if (const auto name = nextName())
                remove(*name);
            else
                isThere = leave();
        }
        return m_outcome;
    }

private:
    struct Level {
        std::string name; ///< in the level above
        dev_t device;
        ino_t inode;
        int mount;
        std::set<std::string> kept; ///< what is in it and has to stay
    };

    int here() const { return dirfd(m_listing.get()); }

    std::string pathOf(const std::string& name) const {
        std::string path = m_path;
        for (auto level = m_levels.begin() + 1; level != m_levels.end(); ++level)
            path += level->name + "/";
        return path + name;
    }

    /// Anything that is left in here, but what has to stay.
    std::optional<std::string> nextName() {
        errno = 0;
        while (const dirent* const entry = readdir(m_listing.get())) {
            const std::string name = entry->d_name;
            if (name != "." && name != ".." && m_levels.back().kept.count(name) == 0)
                return name;
        }
        if (errno != 0)
            keep("", errno); // the folder itself
        return std::nullopt;
    }

    void remove(const std::string& name) {
        if (unlinkat(here(), name.c_str(), 0) == 0)
            return;
        if (errno != EISDIR)
            return keep(name, errno);
        ScopedFd folder(openat(here(), name.c_str(), folderFlags));
        if (!folder)
            return keep(name, errno);
        const auto mount = mountOf(folder.get());
        if (mount && *mount != m_levels.back().mount && m_mounts == Mounts::Left)
            keep(name, EBUSY);
        else if (!enter(std::move(folder), name))
            keep(name, errno);
    }

    /// False with errno.
    bool enter(ScopedFd folder, const std::string& name) {
        struct stat info {};
        const auto mount = mountOf(folder.get());
        if (!folder || !mount || fstat(folder.get(), &info) != 0)
            return false;
        auto listing = list(std::move(folder));
        if (!listing)
            return false;
        m_listing = std::move(listing);
        m_levels.push_back({name, info.st_dev, info.st_ino, *mount, {}});
        return true;
    }

    /// Back to the folder above, and removes this one from it. False: that is not above any more.
    bool leave() {
        Level left = std::move(m_levels.back());
        m_levels.pop_back();
        Level& above = m_levels.back();
        ScopedFd folder(openat(here(), "..", folderFlags));
        struct stat info {};
        ScopedListing listing;
        if (folder && fstat(folder.get(), &info) == 0 && info.st_dev == above.device &&
            info.st_ino == above.inode)
            listing = list(std::move(folder));
        if (!listing) {
            m_outcome = {Outcome::changed, pathOf(left.name) +
                                               " was moved while it was removed: remove it where "
                                               "it is now"};
            return false;
        }
        m_listing = std::move(listing);
        const bool carriesMount = left.mount != above.mount;
        if (carriesMount || !left.kept.empty())
            above.kept.insert(left.name);
        else if (unlinkat(here(), left.name.c_str(), AT_REMOVEDIR) != 0)
            keep(left.name, errno);
        return true;
    }

    void keep(const std::string& name, int reason) {
        m_levels.back().kept.insert(name);
        if (m_outcome)
            m_outcome = refused("cannot remove " + pathOf(name), reason);
    }

    const Mounts m_mounts;
    std::string m_path; ///< what stands before the top's name
    std::vector<Level> m_levels;
    ScopedListing m_listing; ///< of the last level
    Outcome m_outcome;       ///< the first reason
};

/// The mode is the whole one, whatever the umask.
Outcome makeFolder(int folder, const std::string& name, mode_t mode, const std::string& path) {
    if (mkdirat(folder, name.c_str(), mode) != 0)
        return refused("cannot make " + path, errno);
    const ScopedFd made(openat(folder, name.c_str(), folderFlags));
    if (!made || fchmod(made.get(), mode) != 0)
        return refused("cannot set the permissions of " + path, errno);
    return {};
}

/// The last name of a path and what unlinkat or its like is to do with it.
template <typename Operation>
Outcome atPlaceOf(const std::string& path, Operation operation) {
    const CancellationBlock block;
    const FilePlace place = openFilePlace(path);
    return place.outcome ? operation(place) : place.outcome;
}

Outcome unlink(const std::string& path, int flags) {
    return atPlaceOf(path, [&](const FilePlace& place) {
        const int failed = unlinkat(place.folder.get(), place.name.c_str(), flags);
        return failed == 0 ? Outcome{} : refused("cannot remove " + path, errno);
    });
}

} // namespace

} // namespace file_tree

Outcome createFile(const std::string& path, mode_t mode) {
    return file_tree::atPlaceOf(path, [&](const FilePlace& place) {
        constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        const ScopedFd file(openat(place.folder.get(), place.name.c_str(), flags, mode));
        if (!file || fchmod(file.get(), mode) != 0)
            return refused("cannot make " + path, errno);
        return Outcome{};
    });
}

Outcome removeFile(const std::string& path) {
    return file_tree::unlink(path, 0);
}

Outcome createFolder(const std::string& path, mode_t mode) {
    return file_tree::atPlaceOf(path, [&](const FilePlace& place) {
        return file_tree::makeFolder(place.folder.get(), place.name, mode, path);
    });
}

Outcome createFolders(const std::string& base, const std::string& below, mode_t mode) {
    const CancellationBlock block;
    ScopedFd folder(open(base.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folder)
        return refused("cannot go to " + base, errno);
    std::string path = base;
    for (size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
        end = below.find('/', begin);
        const std::string name = below.substr(begin, end - begin);
        if (name.empty() || name == "." || name == "..")
            return {Outcome::badRequest,
                    "'" + below + "' is no path below " + base + ": name folders, as in a/b/c"};
        path += "/" + name;
        const Outcome made = file_tree::makeFolder(folder.get(), name, mode, path);
        if (!made && made.code != Outcome::alreadyThere)
            return made;
        folder.reset(
            openat(folder.get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!folder)
            return refused("cannot go to " + path, errno);
    }
    return {};
}

Outcome removeFolder(const std::string& path) {
    return file_tree::unlink(path, AT_REMOVEDIR);
}

Outcome removeTree(const std::string& path, Mounts mounts) {
    const CancellationBlock block;
    return file_tree::Removal(path, mounts).run();
}
