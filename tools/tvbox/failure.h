#ifndef TVBOX_FAILURE_H
#define TVBOX_FAILURE_H

#include "common/box_registry.h"

#include <stdexcept>
#include <string>

namespace tvbox {

/// Exit codes of tvbox's own; every other one is the command's.
enum ExitCode { ExitFailure = 125, ExitNotExecutable = 126, ExitNotFound = 127, ExitSignal = 128 };

/// The system does not let us have a namespace or a mount: what() says which. Without a box the
/// command can still run.
class Refusal : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// One line on stderr, with the program's name before it.
void notice(const std::string& text);

} // namespace tvbox

#endif
