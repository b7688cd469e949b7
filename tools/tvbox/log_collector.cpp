#include "log_collector.h"

#include "failure.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <vector>

namespace tvbox {

namespace {

constexpr const char* facilities[] = {"kern",   "user",   "mail",   "daemon", "auth",     "syslog",
                                      "lpr",    "news",   "uucp",   "cron",   "authpriv", "ftp",
                                      "ntp",    "audit",  "alert",  "clock",  "local0",   "local1",
                                      "local2", "local3", "local4", "local5", "local6",   "local7"};
constexpr const char* severities[] = {"emerg",   "alert",  "crit", "err",
                                      "warning", "notice", "info", "debug"};
constexpr unsigned defaultPriority = 13; // user.notice
constexpr unsigned lastPriority = 191;
constexpr std::size_t largestDatagram = 256 << 10;

std::string now() {
    struct timespec time = {};
    clock_gettime(CLOCK_REALTIME, &time);
    struct tm local = {};
    localtime_r(&time.tv_sec, &local);
    char text[40];
    const auto length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
    std::snprintf(text + length, sizeof text - length, ".%03ld", time.tv_nsec / 1000000);
    return text;
}

/// Takes "<13>" from the start.
unsigned takePriority(std::string& text) {
    const auto end = text.find('>');
    if (text.empty() || text[0] != '<' || end == std::string::npos || end < 2 || end > 4 ||
        text.find_first_not_of("0123456789", 1) != end)
        return defaultPriority;
    const auto priority = static_cast<unsigned>(std::atoi(text.c_str() + 1));
    if (priority > lastPriority)
        return defaultPriority;
    text.erase(0, end + 1);
    return priority;
}

/// Takes "May  4 10:11:12 " from the start: our own time is finer.
void dropTime(std::string& text) {
    struct tm ignored = {};
    const char* end = strptime(text.c_str(), "%b %d %H:%M:%S ", &ignored);
    if (end)
        text.erase(0, static_cast<std::size_t>(end - text.c_str()));
}

} // namespace

std::string logLine(const std::string& datagram, const std::string& time) {
    auto text = datagram;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\0'))
        text.pop_back();
    const auto priority = takePriority(text);
    dropTime(text);
    auto line = time + " " + facilities[priority / 8] + "." + severities[priority % 8] + " ";
    for (const char c : text) {
        char escaped[8];
        const auto code = static_cast<unsigned char>(c);
        if (code >= ' ' && code != 0x7f) {
            line += c;
        } else if (c == '\t') {
            line += ' ';
        } else {
            std::snprintf(escaped, sizeof escaped, "\\x%02x", code);
            line += escaped;
        }
    }
    return line + "\n";
}

LogCollector::LogCollector(const std::string& socketPath, UniqueFd file)
    : m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
      m_file(std::move(file)) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(m_socket.get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof address) !=
            0 ||
        chmod(socketPath.c_str(), 0666) != 0)
        throw Refusal(withErrno("cannot listen on " + socketPath));
}

void LogCollector::drain() {
    std::vector<char> buffer(largestDatagram);
    for (;;) {
        const auto size = recv(m_socket.get(), buffer.data(), buffer.size(), 0);
        if (size < 0 && errno == EINTR)
            continue;
        if (size < 0)
            return;
        if (m_file)
            write(logLine(std::string(buffer.data(), static_cast<std::size_t>(size)), now()));
    }
}

void LogCollector::write(const std::string& line) {
    std::size_t done = 0;
    while (done < line.size()) {
        const auto count = ::write(m_file.get(), line.data() + done, line.size() - done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0) {
            notice(withErrno("the log ends here, it cannot be written"));
            m_file.reset();
            return;
        }
        done += static_cast<std::size_t>(count);
    }
}

} // namespace tvbox
