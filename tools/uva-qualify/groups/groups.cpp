#include "groups/groups.h"

#include <cstring>

namespace qualify {

const Group groupTable[] = {
    {"playback", "a clip from its beginning to its end, from samples and by URL", checkPlayback},
    {"picture", "what pictures look like: brightness, colours, noise, edges, orientation",
     checkPicture},
    {"answers", "what the backend says of a clip while it plays, and of its end", checkAnswers},
    {"seek", "seeks to a picture: paused, playing, many, to the last", checkSeek},
    {"switch", "other sizes and codecs on the way", checkSwitch},
    {"underflow", "samples that come late", checkUnderflow},
    {"pause", "pauses, and going on", checkPause},
    {"elements", "one to eight elements at a time", checkElements},
    {"release", "elements released at any moment", checkRelease},
    {"resources", "what many elements leave behind", checkResources},
    {"capability", "answers of canPlayType() against one another and against what plays",
     checkCapability},
    {"keys", "encrypted media: keys late, wrong, revoked, rotated, of many sessions", checkKeys},
    {"mainsystem", "decoders granted, refused, late, asked back; a main system that dies",
     checkMainSystem},
};

const unsigned int groupCount = sizeof groupTable / sizeof *groupTable;

const Group* findGroup(const char* name) {
    for (const auto& group : groupTable)
        if (std::strcmp(group.name, name) == 0)
            return &group;
    return nullptr;
}

} // namespace qualify
