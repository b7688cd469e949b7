#ifndef TVBOX_BRING_OUT_H
#define TVBOX_BRING_OUT_H

#include <string>
#include <vector>

namespace tvbox {

/// Copies a file or a folder with what is in it, over what is there, with modes and times. Each
/// file appears complete or not at all. Sockets, pipes and devices stay behind. Missing folders of
/// @p to are made. Returns one text for each thing that could not be written.
std::vector<std::string> bringOut(const std::string& from, const std::string& to);

} // namespace tvbox

#endif
