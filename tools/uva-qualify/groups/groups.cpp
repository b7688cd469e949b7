#include "groups/groups.h"

#include <cstring>

namespace qualify {

const Group groupTable[] = {
    {"playback", "a clip from its beginning to its end, from samples and by URL", checkPlayback},
    {"seek", "seeks to a picture: paused, playing, many, to the last", checkSeek},
};

const unsigned int groupCount = sizeof groupTable / sizeof *groupTable;

const Group* findGroup(const char* name) {
    for (const auto& group : groupTable)
        if (std::strcmp(group.name, name) == 0)
            return &group;
    return nullptr;
}

} // namespace qualify
