#include "run_directory.h"

#include "failure.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tvbox {

namespace {

/// Makes the folder if it is not there.
UniqueFd openDirectory(const std::string& path) {
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        throw Failure(withErrno("cannot make the folder " + path));
    UniqueFd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory && errno == ENOENT)
        return openDirectory(path); // gone again with the last box
    struct stat info = {};
    if (!directory || fstat(directory.get(), &info) != 0 || info.st_uid != geteuid() ||
        (info.st_mode & 0077) != 0)
        throw Failure("the folder " + path +
                      " is not this user's alone (mode 0700); remove it or set XDG_RUNTIME_DIR");
    return directory;
}

/// Holds the lock of the folder that is there now: claiming, sweeping and removing do not meet. The
/// folder goes with its last record, at the end of whoever holds the lock then.
class DirectoryLock {
public:
    explicit DirectoryLock(const std::string& path) : m_path(path) {
        struct stat info = {};
        do {
            m_directory = openDirectory(m_path);
            while (flock(m_directory.get(), LOCK_EX) != 0 && errno == EINTR)
                continue;
        } while (fstat(m_directory.get(), &info) == 0 && info.st_nlink == 0);
    }
    ~DirectoryLock() { rmdir(m_path.c_str()); } // refused while there are records
    DirectoryLock(const DirectoryLock&) = delete;
    DirectoryLock& operator=(const DirectoryLock&) = delete;

private:
    const std::string m_path;
    UniqueFd m_directory;
};

bool ownsFolder(const std::string& path) {
    struct stat info = {};
    return lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == geteuid();
}

std::string runPath() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime && runtime[0] == '/' && ownsFolder(runtime))
        return std::string(runtime) + "/tvbox";
    return "/tmp/tvbox-" + std::to_string(geteuid());
}

void checkName(const std::string& name) {
    const auto allowed = [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.';
    };
    if (name.empty() || name.size() > 64 || name[0] == '.' || name[0] == '-' ||
        !std::all_of(name.begin(), name.end(), allowed))
        throw Failure("'" + name +
                      "' cannot name a box; take up to 64 letters, digits and '-', '_', '.', "
                      "beginning with a letter or digit");
}

bool boxLives(int file) {
    return flock(file, LOCK_EX | LOCK_NB) != 0;
}

/// Lines: process id, /tmp, command. The last line ends the record: without it the box is not
/// ready yet.
std::optional<BoxInfo> parseRecord(const std::string& name, int file) {
    char bytes[4096] = {};
    const auto size = pread(file, bytes, sizeof bytes, 0);
    if (size <= 0)
        return std::nullopt;
    std::istringstream in(std::string(bytes, static_cast<std::size_t>(size)));
    BoxInfo box;
    box.name = name;
    in >> box.pid >> std::ws;
    std::getline(in, box.tmp);
    std::getline(in, box.command);
    if (!in || box.pid <= 0)
        return std::nullopt;
    return box;
}

} // namespace

BoxRecord::BoxRecord(std::string path, UniqueFd file)
    : m_path(std::move(path)), m_file(std::move(file)) {}

BoxRecord::~BoxRecord() {
    if (!m_file)
        return;
    try {
        const DirectoryLock lock(std::filesystem::path(m_path).parent_path());
        unlink(m_path.c_str());
    } catch (const Failure&) {
        // The folder was made unusable meanwhile: the record, unlocked now, goes at the next look.
    }
}

void BoxRecord::publish(const BoxInfo& box) {
    auto command = box.command.substr(0, 1024);
    std::replace_if(
        command.begin(), command.end(), [](unsigned char c) { return c < ' '; }, ' ');
    const auto text = std::to_string(box.pid) + "\n" + box.tmp + "\n" + command + "\n";
    if (pwrite(m_file.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
        throw Failure(withErrno("cannot write " + m_path));
}

void BoxRecord::abandon() {
    m_file.reset();
}

RunDirectory::RunDirectory() : m_path(runPath()) {}

BoxRecord RunDirectory::claim(const std::string& name) {
    checkName(name);
    list(); // what killed boxes left goes now
    const DirectoryLock lock(m_path);
    const auto path = fileOf(name);
    UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file)
        throw Failure(withErrno("cannot write " + path));
    if (boxLives(file.get()))
        throw Failure("a box named '" + name +
                      "' is running; choose another --name, or enter it "
                      "with --enter " +
                      name);
    if (ftruncate(file.get(), 0) != 0)
        throw Failure(withErrno("cannot write " + path));
    return BoxRecord(path, std::move(file));
}

std::vector<BoxInfo> RunDirectory::list() {
    const DirectoryLock lock(m_path);
    std::vector<BoxInfo> boxes;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(m_path, error)) {
        const UniqueFd file(open(entry.path().c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
        if (!file)
            continue;
        if (!boxLives(file.get()))
            unlink(entry.path().c_str());
        else if (auto box = parseRecord(entry.path().filename(), file.get()))
            boxes.push_back(std::move(*box));
    }
    std::sort(boxes.begin(), boxes.end(),
              [](const auto& left, const auto& right) { return left.name < right.name; });
    return boxes;
}

std::optional<BoxInfo> RunDirectory::find(const std::string& name) {
    for (auto& box : list()) {
        if (box.name == name)
            return std::move(box);
    }
    return std::nullopt;
}

} // namespace tvbox
