#ifndef UVA_SCOPE_OPTIONS_H
#define UVA_SCOPE_OPTIONS_H

#include "common/options.h"
#include "probe.h"

#include <chrono>
#include <string>
#include <vector>

namespace scope {

/// What the command line asks for.
struct Options {
    std::vector<std::string> sockets; ///< empty: the usual one
    std::vector<std::string> boxes;   ///< empty: here, and all that run
    std::vector<std::string> follow;
    int port = 0; ///< 0: any
    std::chrono::milliseconds period{100};
    bool isOneLook = false; ///< say why nothing moves, and end
    bool isProbe = false;   ///< of the first socket, in the first box or here
};

tools::Parsed<Options> parseOptions(int argc, const char* const* argv);

} // namespace scope

#endif
