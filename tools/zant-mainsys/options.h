#ifndef MAINSYS_OPTIONS_H
#define MAINSYS_OPTIONS_H

#include <optional>
#include <string>

namespace mainsys {

/// Exit codes of the program; 0 when all went well.
enum ExitCode { ExitFailed = 1, ExitUsage = 2, ExitServed = 3 };

/// What the command line asks for.
struct Options {
    std::string scenario; ///< a file; empty: commands come from standard input
    std::string timeline; ///< output file; empty: not wanted
    int audioDecoders = 1;
    int videoDecoders = 1;
    bool down = false; ///< the main system is not there until a restart
    bool quiet = false;
};

struct ParsedOptions {
    std::optional<Options> options; ///< nothing: print `text` and exit with `exitCode`
    int exitCode = 0;               ///< 0: the text goes to standard output
    std::string text;
};

ParsedOptions parseOptions(int argc, const char* const* argv);

} // namespace mainsys

#endif
