#ifndef ZANTSH_OPTIONS_H
#define ZANTSH_OPTIONS_H

#include "common/options.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace zantsh {

/// What the command line asks for.
struct Options {
    std::string socket = "zant_dbg_server_uva";
    std::string box; ///< empty: this system, else the only box
    std::chrono::milliseconds timeout{10000};
    std::vector<std::string> follow;
    std::string command;                            ///< empty: interactive
    std::optional<std::chrono::milliseconds> every; ///< run the command again and again
};

tools::Parsed<Options> parseOptions(int argc, const char* const* argv);

} // namespace zantsh

#endif
