#ifndef UVA_REPLAY_OPTIONS_H
#define UVA_REPLAY_OPTIONS_H

#include "common/options.h"
#include "replay.h"

#include <string>
#include <vector>

namespace replay {

/// What the command line asks for.
struct Options {
    std::vector<std::string> records; ///< files and folders
    Settings settings;
    bool standalone = false;
    bool list = false;
    std::string minimize; ///< output file; empty: not wanted
};

tools::Parsed<Options> parseOptions(int argc, const char* const* argv);

} // namespace replay

#endif
