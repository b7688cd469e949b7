#ifndef ZANTSH_COMMAND_RUN_H
#define ZANTSH_COMMAND_RUN_H

#include "options.h"

#include <string>

namespace zantsh {

/// What a command came to.
struct CommandResult {
    int exitCode;
    std::string output; ///< as it was shown
};

/// Runs one command: shows its output and its reply. What keeps it from an answer goes to standard
/// error.
CommandResult runCommand(const Options& options, const std::string& line);

} // namespace zantsh

#endif
