#ifndef UVA_QUALIFY_MAIN_SYSTEM_H
#define UVA_QUALIFY_MAIN_SYSTEM_H

#include "host/record.h"
#include "util/mutex.h"
#include "util/scoped_handles.h"

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace qualify {

/// A zant-mainsys as a process that is commanded, and whose lines are read. Bound to one thread.
class MainSystem {
public:
    /// Started; see isThere().
    explicit MainSystem(const std::string& program);
    /// Ends it.
    ~MainSystem();
    MainSystem(const MainSystem&) = delete;
    MainSystem& operator=(const MainSystem&) = delete;

    /// Whether it answers, within some seconds.
    bool isThere();
    void say(const std::string& command);
    /// Another one, in the place of one that has ended.
    void startAgain();
    /// When it printed a line with this text, newer than a time; nothing: not within the bound.
    std::optional<host::Clock::time_point> waitForLine(const std::string& text,
                                                       host::Clock::time_point since,
                                                       std::chrono::milliseconds bound);

private:
    struct Line {
        host::Clock::time_point time;
        std::string text;
    };
    void start();
    void end();
    void read();

    const std::string m_program;
    pid_t m_process = -1;
    ScopedFd m_commands;
    ScopedFd m_output;
    Mutex m_mutex; // a leaf
    std::vector<Line> m_lines GUARDED_BY(m_mutex);
    std::thread m_reader;
};

} // namespace qualify

#endif
