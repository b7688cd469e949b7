#ifndef TVBOX_PLAIN_RUN_H
#define TVBOX_PLAIN_RUN_H

#include "options.h"
#include "signals.h"

#include <string>

namespace tvbox {

/// What keeps this system from giving boxes, and what the user can do about it; one line.
/// @p reason is what was refused.
std::string whyNoBox(const std::string& reason);

/// Runs the command without a box. Such runs share the fixed names of the system inside, so that
/// there is one at a time: waits for the one before. Returns the exit code. Throws Failure.
int runPlainly(const Options& options, const BlockedSignals& signals);

} // namespace tvbox

#endif
