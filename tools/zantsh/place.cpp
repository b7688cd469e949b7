#include "place.h"

#include "exchange.h"
#include "exit_code.h"

#include <cstdlib>
#include <vector>

namespace zantsh {

namespace {

std::string listOf(const std::vector<tvbox::BoxInfo>& boxes) {
    std::string names;
    for (const auto& box : boxes)
        names += (names.empty() ? "" : ", ") + box.name;
    return names.empty() ? "none" : names;
}

} // namespace

std::optional<tvbox::BoxInfo> chooseBox(const std::string& socket, const std::string& boxName) {
    if (!boxName.empty()) {
        if (auto box = tvbox::findBox(boxName))
            return box;
        throw NoShell("no box named '" + boxName +
                      "' is running; running: " + listOf(tvbox::listBoxes()));
    }
    if (getenv("TVBOX") || shellListens(socket))
        return std::nullopt;
    const auto boxes = tvbox::listBoxes();
    if (boxes.size() > 1)
        throw NoShell("no shell at /tmp/" + socket +
                      " outside of boxes; choose one with --box: " + listOf(boxes));
    return boxes.empty() ? std::nullopt : std::optional(boxes.front());
}

} // namespace zantsh
