#ifndef TVBOX_LOG_COLLECTOR_H
#define TVBOX_LOG_COLLECTOR_H

#include "unique_fd.h"

#include <string>

namespace tvbox {

/// Stands in for the system logger: takes datagrams from a socket and writes a line for each,
/// "2026-05-04T10:11:12.345 user.notice text". With no file to write to it still reads them, so
/// that syslog() never waits.
class LogCollector {
public:
    /// Binds @p socketPath; anybody in the box may send. @p file may be none. Throws Refusal.
    LogCollector(const std::string& socketPath, UniqueFd file);

    int fd() const { return m_socket.get(); }
    /// Takes all that is there; does not wait.
    void drain();

private:
    void write(const std::string& line);

    UniqueFd m_socket;
    UniqueFd m_file;
};

/// The line for one datagram, with its end. Control characters are written as \xNN, so that a
/// datagram stays one line; a datagram without a priority counts as user.notice.
std::string logLine(const std::string& datagram, const std::string& time);

} // namespace tvbox

#endif
