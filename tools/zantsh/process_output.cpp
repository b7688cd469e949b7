#include "process_output.h"

#include "exit_code.h"

#include <cstring>
#include <filesystem>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace zantsh {

namespace {

namespace fs = std::filesystem;

constexpr const char* traceLogPrefix = "zanttrc";

std::string descriptorPath(pid_t process, const char* descriptor) {
    return "/proc/" + std::to_string(process) + "/fd/" + descriptor;
}

std::string targetOf(const fs::path& link) {
    std::error_code error;
    return fs::read_symlink(link, error);
}

bool isNullDevice(const struct stat& info) {
    return S_ISCHR(info.st_mode) && info.st_rdev == makedev(1, 3);
}

bool isOwnTerminal(const struct stat& info) {
    struct stat own {};
    return S_ISCHR(info.st_mode) && fstat(STDERR_FILENO, &own) == 0 && S_ISCHR(own.st_mode) &&
           own.st_rdev == info.st_rdev;
}

} // namespace

FollowedFile::FollowedFile(std::string name, const std::string& openPath)
    : m_name(std::move(name)), m_file(open(openPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
    struct stat info {};
    if (m_file && (fstat(m_file.get(), &info) != 0 || !S_ISREG(info.st_mode)))
        m_file.reset();
    m_position = info.st_size;
}

std::string FollowedFile::takeNew() {
    std::string text;
    readOn(text);
    if (isBegunAnew()) {
        m_file.reset(open(m_name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        m_position = 0;
        readOn(text);
    }
    return text;
}

void FollowedFile::readOn(std::string& text) {
    char buffer[4096];
    ssize_t got = 0;
    while (m_file && (got = pread(m_file.get(), buffer, sizeof buffer, m_position)) > 0) {
        text.append(buffer, static_cast<size_t>(got));
        m_position += got;
    }
}

bool FollowedFile::isBegunAnew() const {
    struct stat mine {};
    struct stat named {};
    return m_file && fstat(m_file.get(), &mine) == 0 && stat(m_name.c_str(), &named) == 0 &&
           S_ISREG(named.st_mode) && (mine.st_ino != named.st_ino || mine.st_dev != named.st_dev);
}

ProcessOutput::ProcessOutput(pid_t process, const std::vector<std::string>& files,
                             Transcript::Scope scope)
    : m_process(process), m_scope(scope) {
    for (const std::string& file : files) {
        m_files.push_back({{file, file}, Transcript(Transcript::Scope::everything)});
        if (!m_files.back().file.isOpen())
            throw NoShell("cannot follow " + file + ": " + strerror(errno) +
                          ", or no file; leave --follow out or name another");
    }
    if (process <= 0) {
        m_whereElse = "the shell's process cannot be seen from here: look at its own output";
        return;
    }
    followStandardOutput();
    followTraceLog();
}

void ProcessOutput::followStandardOutput() {
    const std::string path = descriptorPath(m_process, "1");
    const std::string who = "process " + std::to_string(m_process);
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        m_whereElse = "the output of " + who + " cannot be followed: " + strerror(errno);
        return;
    }
    if (S_ISREG(info.st_mode)) {
        m_alternatives.push_back({{targetOf(path), path}, Transcript(m_scope)});
        m_whereElse =
            "nothing was printed: m_starttracingtoscreen switches the output of " + who + " on";
    } else if (isNullDevice(info)) {
        m_whereElse = who + " prints to /dev/null";
    } else if (isOwnTerminal(info)) {
        m_whereElse.clear();
    } else if (S_ISCHR(info.st_mode)) {
        m_whereElse = who + " prints to its terminal " + targetOf(path) + ": look there";
    } else {
        m_whereElse = who + " prints to a pipe, which only the pipe's reader can see";
    }
}

void ProcessOutput::followTraceLog() {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(descriptorPath(m_process, ""), error)) {
        const std::string target = targetOf(entry.path());
        if (fs::path(target).filename().string().rfind(traceLogPrefix, 0) != 0)
            continue;
        FollowedFile log(target, entry.path());
        if (log.isOpen())
            m_alternatives.push_back({std::move(log), Transcript(m_scope)});
    }
}

void ProcessOutput::expectSkip() {
    for (auto& source : m_alternatives)
        source.transcript.expectSkip();
}

void ProcessOutput::expect(const Marks& marks) {
    for (auto& source : m_alternatives)
        source.transcript.expect(marks);
}

std::string ProcessOutput::takeNew() {
    std::string text;
    for (auto& source : m_files)
        text += source.takeNew();
    const bool isDecided = hasBegun();
    for (std::size_t i = 0; i < m_alternatives.size(); ++i) {
        const auto added = m_alternatives[i].takeNew();
        if (!isDecided && !hasBegun() && m_alternatives[i].transcript.hasBegun())
            m_chosen = i;
        if (i == m_chosen)
            text += added;
    }
    return text;
}

std::string ProcessOutput::flush() {
    std::string text;
    for (auto& source : m_files)
        text += source.transcript.flush();
    return m_chosen ? text + m_alternatives[*m_chosen].transcript.flush() : text;
}

} // namespace zantsh
