#ifndef MAINSYS_OPTIONS_H
#define MAINSYS_OPTIONS_H

#include "common/options.h"

#include <string>

namespace mainsys {

/// What the command line asks for.
struct Options {
    std::string script;   ///< a file; empty: commands come from standard input
    std::string timeline; ///< output file; empty: not wanted
    int audioDecoders = 1;
    int videoDecoders = 1;
    bool down = false; ///< the main system is not there until a restart
    bool quiet = false;
};

tools::Parsed<Options> parseOptions(int argc, const char* const* argv);

} // namespace mainsys

#endif
