#ifndef ZANTSH_TARGET_H
#define ZANTSH_TARGET_H

#include "options.h"

#include <functional>

namespace zantsh {

/// Calls `work` where the shell is: here, or in a process of its own inside a box. What it
/// returned. Throws NoShell, or what entering a box throws.
int runWhereTheShellIs(const Options& options, const std::function<int()>& work);

} // namespace zantsh

#endif
