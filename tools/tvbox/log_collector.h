#ifndef TVBOX_LOG_COLLECTOR_H
#define TVBOX_LOG_COLLECTOR_H

#include "util/scoped_handles.h"

#include <string>
#include <vector>

namespace tvbox {

/// Opens a log to append to; none for an empty path. Throws Failure.
ScopedFd openLog(const std::string& path);

/// Stands in for the system logger: takes datagrams from /dev/log and writes a line for each,
/// "2026-05-04T10:11:12.345 user.notice text". Control characters are written as \xNN, so that a
/// datagram stays one line; one without a priority counts as user.notice. With no file to write to
/// it still reads them, so that syslog() never waits.
class LogCollector {
public:
    /// Binds /dev/log; anybody in the box may send. @p file may be none. Throws Refusal.
    explicit LogCollector(ScopedFd file);

    int fd() const { return m_socket.get(); }
    /// Takes all that is there; does not wait.
    void drain();

private:
    ScopedFd m_socket;
    ScopedFd m_file;
    std::vector<char> m_buffer; ///< a datagram, and the end of a text
};

} // namespace tvbox

#endif
