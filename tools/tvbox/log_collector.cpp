#include "log_collector.h"

#include "failure.h"

#include <cstdio>
#include <ctime>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace tvbox {

namespace {

constexpr const char* facilities[] = {"kern",   "user",   "mail",   "daemon", "auth",     "syslog",
                                      "lpr",    "news",   "uucp",   "cron",   "authpriv", "ftp",
                                      "ntp",    "audit",  "alert",  "clock",  "local0",   "local1",
                                      "local2", "local3", "local4", "local5", "local6",   "local7"};
constexpr const char* severities[] = {"emerg",   "alert",  "crit", "err",
                                      "warning", "notice", "info", "debug"};
constexpr unsigned lastPriority = 191;
constexpr std::size_t largestDatagram = 256 << 10;

std::string now() {
    struct timespec time = {};
    clock_gettime(CLOCK_REALTIME, &time);
    struct tm local = {};
    localtime_r(&time.tv_sec, &local);
    char text[40];
    const auto length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
    std::snprintf(text + length, sizeof text - length, ".%03ld ", time.tv_nsec / 1000000);
    return text;
}

/// The line for a datagram such as "<13>May  4 10:11:12 text", with its end.
std::string lineFor(const char* text, const char* end) {
    unsigned priority = 13; // user.notice
    unsigned given = 0;
    int length = 0;
    if (std::sscanf(text, "<%3u>%n", &given, &length) == 1 && length > 0 && given <= lastPriority) {
        priority = given;
        text += length;
    }
    struct tm ignored = {}; // our own time is finer
    if (const char* const behindTime = strptime(text, "%b %d %H:%M:%S ", &ignored))
        text = behindTime;
    while (end > text && (end[-1] == '\n' || end[-1] == '\0'))
        --end;
    auto line = now() + facilities[priority / 8] + "." + severities[priority % 8] + " ";
    for (; text < end; ++text) {
        const auto code = static_cast<unsigned char>(*text);
        if (code >= ' ' && code != 0x7f) {
            line += *text;
            continue;
        }
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", code);
        line += code == '\t' ? " " : escaped;
    }
    return line + "\n";
}

} // namespace

ScopedFd openLog(const std::string& path) {
    if (path.empty())
        return {};
    ScopedFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
    if (!file)
        throw Failure(withErrno("cannot write '" + path + "'"));
    return file;
}

LogCollector::LogCollector(ScopedFd file)
    : m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
      m_file(std::move(file)), m_buffer(largestDatagram + 1) {
    const struct sockaddr_un address = {AF_UNIX, "/dev/log"};
    if (bind(m_socket.get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof address) !=
            0 ||
        chmod(address.sun_path, 0666) != 0)
        throw Refusal(withErrno("cannot listen on /dev/log"));
}

void LogCollector::drain() {
    ssize_t size = 0;
    while ((size = TEMP_FAILURE_RETRY(recv(m_socket.get(), m_buffer.data(), largestDatagram, 0))) >=
           0) {
        m_buffer[static_cast<std::size_t>(size)] = '\0';
        const auto line = lineFor(m_buffer.data(), m_buffer.data() + size);
        if (m_file &&
            write(m_file.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
            notice(withErrno("the log ends here, it cannot be written"));
            m_file.reset();
        }
    }
}

} // namespace tvbox
