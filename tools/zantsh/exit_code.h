#ifndef ZANTSH_EXIT_CODE_H
#define ZANTSH_EXIT_CODE_H

#include <stdexcept>

namespace zantsh {

enum ExitCode { ExitOk = 0, ExitErr = 1, ExitNoShell = 2 };

/// There is no answer to be had: what() says why and what to check.
class NoShell : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

} // namespace zantsh

#endif
