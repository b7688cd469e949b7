#include "util/trusted_path.h"

#include <algorithm>
#include <climits>

namespace {

constexpr int mostLinks = 40;
constexpr mode_t othersMayWrite = S_IWGRP | S_IWOTH;

std::string wrongOwner(const std::string& path, const struct stat& info) {
    return path + " belongs to user " + std::to_string(info.st_uid) +
           ", neither this process's nor root: chown it, or remove it";
}

std::string wrongMode(const std::string& path) {
    return path + " may be written by others: chmod go-w it (a drive without owners: mount it with "
                  "umask=022)";
}

ScopedFd openPlace(int folder, const std::string& name) {
    return ScopedFd(openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

/// From the root, which is taken as it is, name by name: nothing can be exchanged between the look
/// at it and the next step.
class Walk {
public:
    enum class End { OwnFolder, AnyFolder };

    Walk(std::string path, End end) : m_left(std::move(path)), m_end(end) { beginAtRoot(); }

    TrustedPath go() {
        for (std::string name = takeName(); m_folder && !name.empty(); name = takeName())
            step(name);
        return {std::move(m_folder), std::move(m_why)};
    }

private:
    void beginAtRoot() {
        m_folder.reset(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
        m_path.clear();
        m_isShared = false;
    }

    /// Empty at the end.
    std::string takeName() {
        dropSlashes();
        const std::string name = m_left.substr(0, m_left.find('/'));
        m_left.erase(0, name.size());
        dropSlashes();
        return name;
    }

    void dropSlashes() { m_left.erase(0, std::min(m_left.find_first_not_of('/'), m_left.size())); }

    void step(const std::string& name) {
        ScopedFd next = openPlace(m_folder.get(), name);
        struct stat info {};
        if (!next || fstat(next.get(), &info) != 0)
            m_folder.reset();
        else if (S_ISLNK(info.st_mode))
            follow(next, m_path + "/" + name, info);
        else if (S_ISDIR(info.st_mode))
            enter(std::move(next), m_path + "/" + name, info);
        else
            m_folder.reset();
    }

    void follow(const ScopedFd& link, const std::string& path, const struct stat& info) {
        if (!belongsToUsOrRoot(info))
            return refuse(wrongOwner(path, info));
        if (m_isShared || ++m_links > mostLinks)
            return refuse(path + " is a link where others may write: put a folder in its place");
        char target[PATH_MAX];
        const ssize_t length = readlinkat(link.get(), "", target, sizeof target);
        if (length <= 0 || static_cast<size_t>(length) == sizeof target)
            return m_folder.reset();
        if (target[0] == '/')
            beginAtRoot();
        m_left = std::string(target, static_cast<size_t>(length)) + "/" + m_left;
    }

    void enter(ScopedFd folder, const std::string& path, const struct stat& info) {
        m_folder = std::move(folder);
        m_path = path;
        m_isShared = (info.st_mode & othersMayWrite) != 0;
        if (!belongsToUsOrRoot(info))
            return refuse(wrongOwner(path, info));
        if (!m_isShared)
            return;
        if (m_left.empty() && m_end == End::OwnFolder)
            refuse(wrongMode(path));
        else if ((info.st_mode & S_ISVTX) == 0)
            refuse(path + " is not sticky, and others may exchange what is in it: chmod +t or go-w "
                          "it");
    }

    void refuse(std::string why) {
        m_folder.reset();
        m_why = std::move(why);
    }

    std::string m_left; ///< of the way
    const End m_end;
    std::string m_path; ///< of the folder
    ScopedFd m_folder;  ///< where we are; nothing once the way has ended
    std::string m_why;
    bool m_isShared = false; ///< others may write into the folder
    int m_links = 0;
};

} // namespace

bool belongsToUsOrRoot(const struct stat& info) {
    return info.st_uid == geteuid() || info.st_uid == 0;
}

TrustedPath openTrustedFolder(const std::string& path) {
    return Walk(path, Walk::End::OwnFolder).go();
}

TrustedPath openFolderForNewFile(const std::string& path) {
    return Walk(path, Walk::End::AnyFolder).go();
}

TrustedPath openTrustedFile(const TrustedPath& folder, const std::string& folderPath,
                            const std::string& name) {
    ScopedFd place = openPlace(folder.place.get(), name);
    struct stat info {};
    if (!place || fstat(place.get(), &info) != 0)
        return {};
    const std::string path = folderPath + name;
    if (!S_ISREG(info.st_mode))
        return {ScopedFd(), path + " is no file: put a regular file in its place"};
    if (!belongsToUsOrRoot(info))
        return {ScopedFd(), wrongOwner(path, info)};
    if ((info.st_mode & othersMayWrite) != 0)
        return {ScopedFd(), wrongMode(path)};
    return {std::move(place), {}};
}
