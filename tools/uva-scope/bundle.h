#ifndef UVA_SCOPE_BUNDLE_H
#define UVA_SCOPE_BUNDLE_H

#include "player.h"

#include <string>
#include <utility>
#include <vector>

namespace scope {

/// Names and contents.
using Files = std::vector<std::pair<std::string, std::string>>;

/// A POSIX tar archive (ustar) of files in one folder, which this user may read. Names have at most
/// 99 bytes.
std::string makeTar(const std::string& folder, const Files& files);

/// What is kept of a player, without its graph: the state, the main system's, the reason, traces,
/// log, and a time line in Chrome's trace event format. `time`: now.
Files filesOf(const Player& player, double time);

} // namespace scope

#endif
