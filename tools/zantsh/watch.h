#ifndef ZANTSH_WATCH_H
#define ZANTSH_WATCH_H

#include "options.h"

namespace zantsh {

/// Runs the command again and again, until a signal ends the program or there is no shell; gives
/// the exit code.
int watch(const Options& options);

} // namespace zantsh

#endif
