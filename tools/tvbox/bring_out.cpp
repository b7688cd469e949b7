#include "bring_out.h"

#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace tvbox {

namespace {

namespace fs = std::filesystem;

void copyOwner(const fs::path& from, const fs::path& to) {
    struct stat info = {};
    if (geteuid() != 0 || lstat(from.c_str(), &info) != 0)
        return;
    // Only root can, and it keeps what it may not change.
    [[maybe_unused]] const int result = lchown(to.c_str(), info.st_uid, info.st_gid);
}

/// What is made under a passing name beside the target, so that a reader never sees half of it.
template <typename Make>
void replace(const fs::path& from, const fs::path& to, Make make) {
    const fs::path passing = to.parent_path() / (".tvbox-" + std::to_string(getpid()) + ".part");
    std::error_code ignored;
    fs::remove(passing, ignored);
    try {
        make(passing);
        copyOwner(from, passing);
        fs::rename(passing, to);
    } catch (...) {
        fs::remove(passing, ignored);
        throw;
    }
}

void copyFile(const fs::path& from, const fs::path& to) {
    replace(from, to, [&](const fs::path& passing) {
        fs::copy_file(from, passing);
        fs::last_write_time(passing, fs::last_write_time(from));
    });
}

void copyFolder(const fs::path& from, const fs::path& to, std::vector<std::string>& errors) {
    if (fs::create_directory(to, from))
        copyOwner(from, to);
    for (const auto& entry : fs::directory_iterator(from)) {
        auto inner = bringOut(entry.path(), to / entry.path().filename());
        errors.insert(errors.end(), inner.begin(), inner.end());
    }
}

} // namespace

std::vector<std::string> bringOut(const std::string& from, const std::string& to) {
    std::vector<std::string> errors;
    try {
        const auto type = fs::symlink_status(from).type();
        const fs::path parent = fs::path(to).parent_path();
        if (type == fs::file_type::regular || type == fs::file_type::directory ||
            type == fs::file_type::symlink)
            fs::create_directories(parent);
        if (type == fs::file_type::regular)
            copyFile(from, to);
        else if (type == fs::file_type::directory)
            copyFolder(from, to, errors);
        else if (type == fs::file_type::symlink)
            replace(from, to, [&](const fs::path& passing) { fs::copy_symlink(from, passing); });
    } catch (const fs::filesystem_error& error) {
        errors.push_back(error.path1().empty() ? error.what()
                                               : from + ": " + error.code().message());
    }
    return errors;
}

} // namespace tvbox
