#include "script/script.h"
#include "util/scoped_handles.h"
#include "util/trusted_path.h"

#include <cerrno>
#include <cstring>

namespace {

ScriptCompilation notRead(const std::string& path, const std::string& why) {
    return {std::nullopt, path + ": " + why};
}

/// All of it, or one byte more than there may be. False on an error.
bool readAll(int file, std::string& text) {
    char part[4096];
    while (text.size() <= longestScript) {
        const ssize_t length = read(file, part, sizeof part);
        if (length < 0 && errno == EINTR)
            continue;
        if (length <= 0)
            return length == 0;
        text.append(part, static_cast<size_t>(length));
    }
    return true;
}

} // namespace

ScriptCompilation SILCompile(const std::string& path) {
    if (path.empty() || path.front() != '/' || path.back() == '/')
        return {std::nullopt, "'" + path + "' is no absolute path of a file"};
    if (path.find("/.") != std::string::npos)
        return notRead(path, "hidden: name a path without parts that begin with a dot");
    const auto slash = path.rfind('/');
    const std::string folderPath = path.substr(0, slash + 1);
    // One that others may write to is good enough if it is sticky: the file is looked at, too.
    const TrustedPath folder = openFolderForNewFile(folderPath);
    if (!folder.place)
        return notRead(path, folder.why.empty() ? "there is no such folder" : folder.why);
    const TrustedPath place = openTrustedFile(folder, folderPath, path.substr(slash + 1));
    if (!place.place)
        return notRead(path, place.why.empty() ? "there is no such file" : place.why);
    const std::string opened = "/proc/self/fd/" + std::to_string(place.place.get());
    const ScopedFd file(open(opened.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text;
    if (!file || !readAll(file.get(), text))
        return notRead(path, std::string("cannot be read: ") + strerrordesc_np(errno));
    return SILCompileText(path, text);
}
