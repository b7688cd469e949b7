#ifndef UVA_QUALIFY_OPTIONS_H
#define UVA_QUALIFY_OPTIONS_H

#include "common/options.h"
#include "stage.h"

#include <string>
#include <vector>

namespace qualify {

enum class Observe { Auto, Sinks, Capture };

/// What the command line asks for.
struct Options {
    std::string backend;             ///< empty: the default
    std::vector<std::string> groups; ///< empty: all
    Profile profile = Profile::Full;
    Observe observe = Observe::Auto;
    bool standalone = false;
    std::string mainSystem;
    std::string media;
    unsigned int elements = 8;
    bool list = false;

    std::string html, junit, json; ///< output files; empty: not wanted
    std::string baseline;

    std::string worker; ///< the group that this process is to run; empty: it is the one in charge
    int result = -1;    ///< the worker's: where it tells what it has found
};

tools::Parsed<Options> parseOptions(int argc, const char* const* argv);

} // namespace qualify

#endif
