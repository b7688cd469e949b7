#ifndef ZANTSH_OPTIONS_H
#define ZANTSH_OPTIONS_H

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
    std::string command; ///< empty: interactive
};

struct ParsedOptions {
    std::optional<Options> options; ///< nothing: print `text` and exit with `exitCode`
    std::string text;
    int exitCode = 0;
};

ParsedOptions parseOptions(int argc, char** argv);

} // namespace zantsh

#endif
