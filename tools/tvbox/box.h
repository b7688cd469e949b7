#ifndef TVBOX_BOX_H
#define TVBOX_BOX_H

#include "box_files.h"
#include "namespaces.h"
#include "options.h"
#include "run_directory.h"
#include "signals.h"
#include "supervisor.h"

#include <string>

namespace tvbox {

/// One box from its beginning to its end: the process outside that the caller sees, and the first
/// process inside, which makes the files, runs the command and cleans up.
class Box {
public:
    /// Claims the name and opens what is named by paths outside. Throws Failure.
    Box(const Options& options, const BlockedSignals& signals);

    /// Runs the command. Returns its exit code. Throws Refusal if the system allows no box; nothing
    /// has run then.
    int run();

private:
    /// Makes the box and returns its first process, which waits for the other end of @p channel.
    pid_t make(BoxKind kind, UniqueFd& channel);
    int attend(pid_t first, BoxKind kind);

    int liveInside(BoxKind kind, const UniqueFd& channel);
    std::string setUp(BoxKind kind, BoxFiles& files);
    int runJob(BoxKind kind, LogCollector& log);

    const Options& m_options;
    const BlockedSignals& m_signals;
    const std::string m_name;
    const Caller m_caller;
    const FilePlan m_plan;
    UniqueFd m_log;
    UniqueFd m_companionLog;
    Job m_job;
    BoxRecord m_record;
};

/// Runs a command in a box that runs already, then ends the process with the command's exit code.
/// Throws Failure if the box cannot be entered.
[[noreturn]] void enterBox(const Options& options, const BlockedSignals& signals);

/// Opens a log to append to; none for an empty path. Throws Failure.
UniqueFd openLog(const std::string& path);

/// What @p options want to be run, with the output of companions going to @p companionLog.
Job jobOf(const Options& options, const UniqueFd& companionLog);

} // namespace tvbox

#endif
