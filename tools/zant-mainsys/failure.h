#ifndef MAINSYS_FAILURE_H
#define MAINSYS_FAILURE_H

#include <stdexcept>
#include <string>

namespace mainsys {

/// Exit codes of the program, beside 0 and tools::usageError.
enum ExitCode { ExitFailed = 1, ExitServed = 3 };

/// Why the main system cannot be there, and what to do.
struct Failure : std::runtime_error {
    Failure(ExitCode code, const std::string& text) : std::runtime_error(text), exitCode(code) {}

    ExitCode exitCode;
};

} // namespace mainsys

#endif
