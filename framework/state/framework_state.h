#ifndef FRAMEWORK_STATE_H
#define FRAMEWORK_STATE_H

#include <chrono>
#include <string>
#include <string_view>

/// Adds the shell command that writes the state report, group "dbg", and what the framework knows:
/// the process, its threads, queues, timers, and the levels and modes of tracing. Once is enough.
void AddStateMshellCmds();

/// The answer of a command that is to write a file, see util/atomic_file.h: writes it and says so,
/// or why not. What the command returns.
int AnswerWithFile(const std::string& path, std::string_view content);

/// How long a command may ask what may not answer.
constexpr std::chrono::milliseconds longestAsk(1000);

#endif
