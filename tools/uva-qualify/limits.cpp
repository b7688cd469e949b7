#include "limits.h"

#include <cassert>
#include <cstring>

namespace qualify {

namespace {

constexpr double none = unbounded;
constexpr auto time = Limit::Of::Time;

// Where tolerances come from. What no standard says is this program's own, with its reason in
// docs/how-to/qualify-a-set.md.
constexpr const char* lipSync = "ITU-R BT.1359-1: 40 ms early, 120 ms late, detectable";
constexpr const char* whole = "HTML Standard, media elements: all of the media is played, in order";
constexpr const char* exactSeek = "HTML Standard, seeking: the frame at the position is shown";
constexpr const char* own = "this program: see docs/how-to/qualify-a-set.md";

} // namespace

const Limit limitTable[] = {
    {"playback", "start", "from play() to the first picture, samples", 0, 1000, "ms", own, time},
    {"playback", "first picture", "number of the first picture that is shown", 0, 0, "", whole,
     time},
    {"playback", "last picture", "pictures that are missing at the end", 0, 0, "pictures", whole},
    {"playback", "end", "the end is not told", 0, 0, "times", whole},
    {"playback", "order", "pictures shown twice, out of order or unreadable", 0, 0, "pictures",
     whole},
    {"playback", "drops", "pictures left out, in 15 s", 0, 1, "pictures", own, time},
    {"playback", "sound", "seconds whose pulse is not heard once", 0, 0, "seconds", whole, time},
    {"playback", "lip sync", "pulses heard between 40 ms before and 120 ms behind their picture",
     95, none, "%", lipSync, time},
    {"playback", "position", "position told against the picture on screen, beyond one picture", 0,
     150, "ms", own, time},
    {"playback", "duration", "duration told against the clip's", -50, 50, "ms", own},
    {"playback", "drift", "media time less time passed, from the first to the last picture", -250,
     250, "ms", own, time},
    {"playback", "start by URL", "from play() to the first picture, by URL", 0, 1000, "ms", own,
     time},
    {"playback", "first picture by URL", "number of the first picture that is shown", 0, 0, "",
     whole, time},
    {"playback", "last picture by URL", "pictures that are missing at the end", 0, 0, "pictures",
     whole},
    {"playback", "end by URL", "the end is not told", 0, 0, "times", whole},
    {"playback", "order by URL", "pictures shown twice, out of order or unreadable", 0, 0,
     "pictures", whole},
    {"playback", "drops by URL", "pictures left out, in 15 s", 0, 1, "pictures", own, time},
    {"playback", "sound by URL", "seconds whose pulse is not heard once", 0, 0, "seconds", whole,
     time},
    {"playback", "lip sync by URL",
     "pulses heard between 40 ms before and 120 ms behind their picture", 95, none, "%", lipSync,
     time},
    {"playback", "position by URL",
     "position told against the picture on screen, beyond one picture", 0, 150, "ms", own, time},
    {"playback", "duration by URL", "duration told against the clip's", -50, 50, "ms", own},
    {"playback", "drift by URL", "media time less time passed, from the first to the last picture",
     -250, 250, "ms", own, time},

    {"seek", "paused", "pictures beside the target, worst of six seeks", 0, 0, "pictures",
     exactSeek},
    {"seek", "last picture", "pictures beside the last one", 0, 0, "pictures", exactSeek},
    {"seek", "playing", "pictures beside the target, worst of three seeks", 0, 0, "pictures",
     exactSeek, time},
    {"seek", "storm", "pictures beside the last target of many", 0, 0, "pictures", exactSeek, time},

    {"switch", "rendition", "pictures lost, twice or out of order where the size changes", 0, 0,
     "pictures", whole, time},
    {"switch", "rendition gap", "longest time from picture to picture where the size changes", 0,
     120, "ms", own, time},
    {"switch", "codec", "pictures lost, twice or out of order where the codec changes", 0, 0,
     "pictures", whole, time},
    {"switch", "codec gap", "longest time from picture to picture where the codec changes", 0, 500,
     "ms", own, time},

    {"underflow", "held", "position told beyond what was there", -500, 40, "ms", own, time},
    {"underflow", "recovery", "from new samples to the next picture", 0, 1000, "ms", own, time},
    {"underflow", "pictures", "pictures lost, twice or out of order", 0, 0, "pictures", whole,
     time},
    {"underflow", "sound", "seconds whose pulse is not heard once", 0, 0, "seconds", whole, time},

    {"pause", "stops", "from pause() to the last new picture, worst", 0, 32, "ms", own, time},
    {"pause", "stands", "position moves while paused", 0, 40, "ms", own, time},
    {"pause", "silent", "pulses heard while paused", 0, 0, "pulses", whole},
    {"pause", "goes on", "pictures lost, twice or out of order, over all pauses", 0, 0, "pictures",
     whole, time},

    {"elements", "1 at a time", "pictures that one element does not show, worst", 0, 0, "pictures",
     whole, time},
    {"elements", "2 at a time", "pictures that one element does not show, worst", 0, 0, "pictures",
     whole, time},
    {"elements", "4 at a time", "pictures that one element does not show, worst", 0, 0, "pictures",
     whole, time},
    {"elements", "8 at a time", "pictures that one element does not show, worst", 0, 0, "pictures",
     whole, time},

    {"release", "idle", "release before anything was opened", 0, 1000, "ms", own, time},
    {"release", "any moment", "release while it opens, plays, seeks, pauses, ends; worst", 0, 1000,
     "ms", own, time},

    {"resources", "descriptors", "open descriptors, after less before", none * -1, 0, "", own},
    {"resources", "threads", "threads, after less before", none * -1, 0, "", own},
    {"resources", "queues", "message queues and shared memory, after less before", none * -1, 0, "",
     own},
    {"resources", "memory", "resident memory, growth a cycle", none * -1, 64, "kB", own},

    {"capability", "plays what it says", "clips that were promised and do not play", 0, 0, "clips",
     own},
    {"capability", "says what it plays", "clips that were refused and play all the same", 0, 0,
     "clips", own},
    {"capability", "its own list", "types of its own list that it refuses", 0, 0, "types", own},
    {"capability", "nonsense", "types that are none and are promised", 0, 0, "types", own},
    {"capability", "size", "types refused though a larger picture of the kind is promised", 0, 0,
     "types", own},

    {"keys", "in time", "pictures not shown with the keys there from the beginning", 0, 0,
     "pictures", whole, time},
    {"keys", "late", "pictures not shown when the keys come late", 0, 0, "pictures", whole, time},
    {"keys", "wrong", "pictures readable under a wrong key", 0, 0, "pictures", own},
    {"keys", "revoked", "pictures readable behind a key that was revoked", 0, 0, "pictures", own},
    {"keys", "rotated", "pictures not shown when each second has a key of its own", 0, 0,
     "pictures", whole, time},
    {"keys", "sessions", "pictures not shown of many sessions with 16 keys each", 0, 0, "pictures",
     whole, time},
    {"keys", "given back", "decrypters made and not given back", 0, 0, "decrypters", own},

    {"mainsystem", "granted", "pictures not shown with the decoders granted", 0, 0, "pictures", own,
     time},
    {"mainsystem", "refused by the host", "pictures shown though the host refuses the decoders", 0,
     0, "pictures", own},
    {"mainsystem", "refused", "pictures shown though the main system refuses the decoders", 0, 0,
     "pictures", own},
    {"mainsystem", "late answer", "pictures lost when the main system answers after 2 s", 0, 0,
     "pictures", own, time},
    {"mainsystem", "release", "from the main system's wish to the decoder given back", 0, 2000,
     "ms", own, time},
    {"mainsystem", "death", "release of an element whose main system has died", 0, 1000, "ms", own,
     time},
};

const unsigned int limitCount = sizeof limitTable / sizeof *limitTable;

const Limit& limitOf(const char* group, const char* check) {
    for (const auto& limit : limitTable)
        if (std::strcmp(limit.group, group) == 0 && std::strcmp(limit.check, check) == 0)
            return limit;
    assert(!"a check without a row in the table of limits");
    return limitTable[0];
}

} // namespace qualify
