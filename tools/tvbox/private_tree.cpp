#include "private_tree.h"

#include "bring_out.h"
#include "failure.h"

#include <filesystem>
#include <fnmatch.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tvbox {

namespace {

namespace fs = std::filesystem;

/// What the system inside puts directly into /tmp under a fixed name, and what the box itself does.
constexpr const char* ownNames[] = {"zant_dbg_*", "GST_DEBUG", "usb_logs", ".tvbox*"};

bool isOwn(const std::string& entry) {
    for (const char* pattern : ownNames) {
        if (fnmatch(pattern, entry.c_str(), 0) == 0)
            return true;
    }
    return false;
}

std::string topmost(const std::string& relative) {
    return relative.substr(0, relative.find('/'));
}

} // namespace

PrivateTree::PrivateTree(std::string path, std::string outside)
    : m_path(std::move(path)), m_outside(std::move(outside)) {}

std::string PrivateTree::within(const std::string& path) const {
    if (path.compare(0, m_path.size() + 1, m_path + "/") != 0)
        return {};
    auto relative = path.substr(m_path.size() + 1);
    while (!relative.empty() && relative.back() == '/')
        relative.pop_back();
    return relative;
}

void PrivateTree::letThrough(const std::string& path) {
    const auto entry = topmost(within(path));
    if (!entry.empty() && !isOwn(entry))
        share(entry);
}

void PrivateTree::letThroughMatching(const std::string& pattern) {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(m_outside, error)) {
        if (fnmatch(pattern.c_str(), entry.path().filename().c_str(), 0) == 0)
            share(entry.path().filename());
    }
}

void PrivateTree::share(const std::string& entry) {
    const auto outside = m_outside + "/" + entry;
    const auto inside = m_path + "/" + entry;
    struct stat info = {};
    if (lstat(outside.c_str(), &info) != 0 || !m_shared.insert(entry).second)
        return;
    if (S_ISLNK(info.st_mode)) {
        std::error_code error;
        const auto target = fs::read_symlink(outside, error);
        if (error || symlink(target.c_str(), inside.c_str()) != 0)
            throw Refusal(withErrno("cannot link " + inside));
        letThrough((fs::path(m_path) / target).lexically_normal());
    } else if (S_ISDIR(info.st_mode)) {
        if (mkdir(inside.c_str(), 0700) != 0 ||
            mount(outside.c_str(), inside.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
            throw Refusal(withErrno("cannot mount " + inside));
    } else if (symlink(outside.c_str(), inside.c_str()) != 0) {
        throw Refusal(withErrno("cannot link " + inside));
    }
}

std::vector<std::string> PrivateTree::bringBack(const std::string& path) const {
    const auto relative = within(path);
    const auto entry = topmost(relative);
    if (entry.empty() || isOwn(entry))
        return {};
    const auto inside = m_path + "/" + relative;
    struct stat info = {};
    if (lstat(inside.c_str(), &info) != 0)
        return {};
    // Shared folders and links are the outside; a file in the place of a link is new.
    if (m_shared.count(entry) != 0 && (relative != entry || !S_ISREG(info.st_mode)))
        return {};
    return bringOut(inside, m_outside + "/" + relative);
}

} // namespace tvbox
