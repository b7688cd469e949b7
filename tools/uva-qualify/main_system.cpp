#include "main_system.h"

#include "clip_player.h"

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace qualify {

MainSystem::MainSystem(const std::string& program) : m_program(program) {
    start();
}

MainSystem::~MainSystem() {
    end();
}

void MainSystem::startAgain() {
    end();
    start();
}

void MainSystem::end() {
    say("quit");
    m_commands.reset();
    if (m_process <= 0)
        return;
    m_reader.join(); // its output ends with it
    waitpid(m_process, nullptr, 0);
    m_process = -1;
}

void MainSystem::start() {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0)
        return;
    ScopedFd theirInput(in[0]);
    m_commands.reset(in[1]);
    if (pipe2(out, O_CLOEXEC) != 0)
        return;
    m_output.reset(out[0]);
    ScopedFd theirOutput(out[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, theirInput.get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, theirOutput.get(), STDOUT_FILENO);
    char* const arguments[] = {const_cast<char*>(m_program.c_str()), nullptr};
    if (posix_spawnp(&m_process, m_program.c_str(), &actions, nullptr, arguments, environ) != 0)
        m_process = -1;
    posix_spawn_file_actions_destroy(&actions);
    if (m_process > 0)
        m_reader = std::thread([this] { read(); });
}

void MainSystem::read() {
    std::string text;
    char bytes[4096];
    for (;;) {
        const auto count = ::read(m_output.get(), bytes, sizeof bytes);
        if (count <= 0)
            return;
        const auto now = Clock::now();
        text.append(bytes, static_cast<std::size_t>(count));
        const MutexLock lock(m_mutex);
        for (auto end = text.find('\n'); end != std::string::npos; end = text.find('\n')) {
            m_lines.push_back({now, text.substr(0, end)});
            text.erase(0, end + 1);
        }
    }
}

bool MainSystem::isThere() {
    const auto now = Clock::now();
    say("status");
    return m_process > 0 && waitForLine("", now, Milliseconds(5000)).has_value();
}

/// One that is gone hears nothing.
void MainSystem::say(const std::string& command) {
    const auto line = command + "\n";
    if (m_commands && ::write(m_commands.get(), line.data(), line.size()) < 0)
        m_commands.reset();
}

std::optional<Clock::time_point> MainSystem::waitForLine(const std::string& text,
                                                         Clock::time_point since,
                                                         std::chrono::milliseconds bound) {
    std::optional<Clock::time_point> found;
    waitUntil(
        [&] {
            const MutexLock lock(m_mutex);
            for (const auto& line : m_lines)
                if (!found && line.time >= since && line.text.find(text) != std::string::npos)
                    found = line.time;
            return found.has_value();
        },
        bound);
    return found;
}

} // namespace qualify
