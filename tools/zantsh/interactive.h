#ifndef ZANTSH_INTERACTIVE_H
#define ZANTSH_INTERACTIVE_H

#include "options.h"

namespace zantsh {

/// Runs the lines of standard input, with history and completion on a terminal. The exit code of
/// the last command.
int runInteractively(const Options& options);

} // namespace zantsh

#endif
