#ifndef ZANTSH_PLACE_H
#define ZANTSH_PLACE_H

#include "common/box_registry.h"

#include <optional>
#include <string>

namespace zantsh {

/// Where the shell of that socket is to be asked: in the box of that name; without one here, or, if
/// no shell is here, in the only box. Nothing: here. Throws NoShell.
std::optional<tvbox::BoxInfo> chooseBox(const std::string& socket, const std::string& boxName);

} // namespace zantsh

#endif
