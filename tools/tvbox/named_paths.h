#ifndef TVBOX_NAMED_PATHS_H
#define TVBOX_NAMED_PATHS_H

#include "options.h"

#include <string>
#include <vector>

namespace tvbox {

/// Absolute paths, normalised, that a command line and an environment may mean. Takes rather too
/// much than too little: words of a shell script, values after '=', quoted parts, file:// URIs.
/// Relative words count for the command line alone, from @p cwd.
Words namedPaths(const Words& arguments, const Words& environment, const std::string& cwd);

} // namespace tvbox

#endif
