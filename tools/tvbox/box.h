#ifndef TVBOX_BOX_H
#define TVBOX_BOX_H

#include "box_files.h"
#include "common/box_registry.h"
#include "common/signals.h"
#include "log_collector.h"
#include "options.h"

#include <string>

namespace tvbox {

struct Ids {
    uid_t uid;
    gid_t gid;
};

/// One box from its beginning to its end: the process outside that the caller sees, and the first
/// process inside, which makes the files, runs the command and cleans up.
class Box {
public:
    /// Takes the name and opens what is named by paths outside. Throws Failure.
    Box(const Options& options, const tools::Signals& signals);

    /// Runs the command. Returns its exit code. Throws Refusal if the system allows no box; nothing
    /// has run then.
    int run();

private:
    pid_t make(int kind);
    int attend(pid_t first, int kind) const;
    int liveInside(int kind, ScopedFd outside);
    LogCollector setUp(int kind);
    int runCommand(LogCollector& log) const;

    const Options& m_options;
    const tools::Signals& m_signals;
    const Ids m_caller = {geteuid(), getegid()}; ///< outside; within, both are unknown at first
    const std::string m_name;
    const BoxName m_claim;
    const BoxFiles m_files;
    ScopedFd m_log;
    const ScopedFd m_companionLog;
};

/// Runs a command in a box that runs already, then ends the process with the command's exit code.
/// Throws Failure if the box cannot be entered.
[[noreturn]] void enterBox(const Options& options, const tools::Signals& signals);

} // namespace tvbox

#endif
