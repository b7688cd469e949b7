#ifndef TVBOX_OPTIONS_H
#define TVBOX_OPTIONS_H

#include "common/options.h"

#include <string>
#include <vector>

namespace tvbox {

using Words = std::vector<std::string>;

/// What the command line asks for: a command in a new box or in one to enter, or the list of boxes.
struct Options {
    Words command;
    bool list = false;
    std::string enter;        ///< name of the box; empty: a new one
    std::string name;         ///< of the new one; empty: the process id
    bool require = false;     ///< no box is an error
    Words share;              ///< paths that are let through
    Words etc;                ///< FILE or FILE=NAME each
    std::string log;          ///< file for what syslog() sends; empty: not kept
    std::string mainSystem;   ///< program that says when it is ready; the command waits for that
    Words with;               ///< programs that run beside, with their arguments
    std::string companionLog; ///< for the output of those; empty: standard error
};

tools::Parsed<Options> parseOptions(int argc, const char* const* argv);

} // namespace tvbox

#endif
