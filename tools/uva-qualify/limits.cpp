#include "limits.h"

#include <cassert>
#include <cstring>

namespace qualify {

namespace {

// What may explain a value of time that is too large; nothing else is explained.
constexpr Excuse oneWait{1, false};
constexpr Excuse allWaits{1, true};
constexpr Excuse waitsOfPulses{4, true}; // a percent
constexpr Excuse waitsOfPace{15, false}; // a percent of some 1.5 s

// Where tolerances come from. What no standard says is this program's own, with its reason in
// docs/how-to/qualify-a-set.md.
constexpr const char* lipSync = "ITU-R BT.1359-1: 40 ms early, 120 ms late, detectable";
constexpr const char* allIsPlayed =
    "HTML Standard, media elements: all of the media is played, in order";
constexpr const char* seekShows = "HTML Standard, seeking: the frame at the position is shown";
constexpr const char* levels =
    "this program: 2 levels for rounding between 8-bit BT.601 Y'CbCr and RGB, the rest for codecs";
constexpr const char* canPlay = "HTML Standard, canPlayType()";
constexpr const char* ownLimit = "this program: see docs/how-to/qualify-a-set.md";

} // namespace

const Limit limitTable[] = {
    {"playback", "start", "from play() to the first picture", 0, 1000, "ms", ownLimit, allWaits},
    {"playback", "first picture", "pictures missing at the beginning", 0, 0, "pictures",
     allIsPlayed},
    {"playback", "last picture", "pictures missing at the end", 0, 0, "pictures", allIsPlayed},
    {"playback", "order", "pictures shown twice, out of order or unreadable", 0, 0, "pictures",
     allIsPlayed},
    {"playback", "drops", "pictures left out, in 15 s", 0, 1, "pictures", ownLimit},
    {"playback", "sound", "seconds whose pulse is not heard once", 0, 0, "pulses", allIsPlayed},
    {"playback", "tone", "the tone between the pulses: what of it is not heard", -60, 60, "ms",
     ownLimit},
    {"playback", "lip sync", "pulses heard from 40 ms before to 120 ms behind their picture", 95,
     unbounded, "%", lipSync, waitsOfPulses},
    {"playback", "position", "position told against the picture on screen, beyond one picture", 0,
     150, "ms", ownLimit, allWaits},
    {"playback", "duration", "duration told less the clip's", -50, 50, "ms", ownLimit},
    {"playback", "drift", "media time less time passed since the first picture, worst", -250, 250,
     "ms", ownLimit, allWaits},
    {"playback", "end", "pictures of a playback whose end is not told", 0, 0, "pictures",
     allIsPlayed},

    {"picture", "brightness", "luma of a grey or coloured patch, worst of all pictures", 0, 8,
     "levels", levels},
    {"picture", "colours", "chroma of a patch, worst of all pictures", 0, 8, "levels", levels},
    {"picture", "noise", "standard deviation inside a patch, worst of all pictures", 0, 10,
     "levels", levels},
    {"picture", "edges", "what is along the edges of the picture, worst of all pictures", 0, 16,
     "levels", levels},
    {"picture", "orientation", "pictures that are mirrored or upside down", 0, 0, "pictures",
     ownLimit},
    {"picture", "size", "width and height against the clip's", 0, 0, "pixels", ownLimit},
    {"picture", "captured", "clips of which no picture could be captured, though of others", 0, 0,
     "clips", ownLimit},

    {"answers", "size", "width and height told against the clip's", 0, 0, "pixels", ownLimit},
    {"answers", "pixel aspect", "width of a pixel over its height, against the clip's 4:3", -1, 1,
     "%", ownLimit},
    {"answers", "seekable",
     "the range that can be sought against the clip, its end told in "
     "nanoseconds",
     0, 50, "ms", ownLimit},
    {"answers", "speeds", "answers that contradict the speeds on offer", 0, 0, "answers", ownLimit},
    {"answers", "volume", "volumes refused, or taken though they are no number", 0, 0, "answers",
     ownLimit},
    {"answers", "pace", "seconds that the position moves in one second", 98, 102, "%", ownLimit,
     waitsOfPace},
    {"answers", "rate", "rate told with a position, less 1", 0, 0, "%", ownLimit},
    {"answers", "taken at", "time told with a position against when it was asked for", -50, 50,
     "ms", ownLimit, oneWait},
    {"answers", "duration", "duration told less the clip's", -50, 50, "ms", ownLimit},
    {"answers", "end", "the end told against when the position comes there", -100, 250, "ms",
     ownLimit, allWaits},
    {"answers", "ends", "how often the end is told", 1, 1, "times", ownLimit},

    {"seek", "paused", "pictures beside the target, worst of six seeks", 0, 0, "pictures",
     seekShows},
    {"seek", "last picture", "pictures beside the last one", 0, 0, "pictures", seekShows},
    {"seek", "playing", "pictures beside the target, worst of three seeks", 0, 0, "pictures",
     seekShows},
    {"seek", "storm", "pictures beside the last target of many", 0, 0, "pictures", seekShows},

    {"switch", "rendition", "pictures lost, twice or out of order where the size changes", 0, 0,
     "pictures", allIsPlayed},
    {"switch", "rendition gap", "longest time from picture to picture where the size changes", 0,
     120, "ms", ownLimit, allWaits},
    {"switch", "codec", "pictures lost, twice or out of order where the codec changes", 0, 0,
     "pictures", allIsPlayed},
    {"switch", "codec gap", "longest time from picture to picture where the codec changes", 0, 500,
     "ms", ownLimit, allWaits},
    {"switch", "sound", "seconds whose pulse is not heard once, over all switches", 0, 0, "pulses",
     allIsPlayed},

    {"underflow", "held", "position at which playback is held less the end of what was there", -500,
     40, "ms", ownLimit, allWaits},
    {"underflow", "recovery", "from new samples to the next picture", 0, 1000, "ms", ownLimit,
     allWaits},
    {"underflow", "pictures", "pictures lost, twice or out of order", 0, 0, "pictures",
     allIsPlayed},
    {"underflow", "pace", "media time less time passed since it went on, worst picture", -250, 250,
     "ms", ownLimit, allWaits},
    {"underflow", "sound", "seconds whose pulse is not heard once", 0, 0, "pulses", allIsPlayed},

    {"pause", "stops", "from pause() to the last new picture, worst of all", 0, 32, "ms", ownLimit,
     oneWait},
    {"pause", "stands", "position moves while paused", 0, 10, "ms", ownLimit, oneWait},
    {"pause", "silent", "pulses heard while paused", 0, 0, "pulses", ownLimit},
    {"pause", "goes on", "pictures lost, twice or out of order, over all pauses", 0, 0, "pictures",
     allIsPlayed},
    {"pause", "pace", "media time less time passed since it went on, worst picture", -250, 250,
     "ms", ownLimit, allWaits},

    {"elements", "1 at a time", "pictures that an element does not show, worst", 0, 0, "pictures",
     allIsPlayed},
    {"elements", "2 at a time", "pictures that an element does not show, worst", 0, 0, "pictures",
     allIsPlayed},
    {"elements", "4 at a time", "pictures that an element does not show, worst", 0, 0, "pictures",
     allIsPlayed},
    {"elements", "8 at a time", "pictures that an element does not show, worst", 0, 0, "pictures",
     allIsPlayed},

    {"release", "idle", "release before anything was opened", 0, 1000, "ms", ownLimit, oneWait},
    {"release", "any moment", "release while it opens, plays, seeks, pauses or ends, worst", 0,
     1000, "ms", ownLimit, oneWait},

    {"resources", "descriptors", "open descriptors, after less before", -unbounded, 0,
     "descriptors", ownLimit},
    {"resources", "threads", "threads that have begun since and go on", 0, 0, "threads", ownLimit},
    {"resources", "mapped", "mappings of memory files and deleted files, after less before",
     -unbounded, 0, "mappings", ownLimit},
    {"resources", "resident", "growth of memory outside the heap an element, of the second half",
     -unbounded, 64, "kB", ownLimit},
    {"resources", "address space", "growth of what is mapped an element, of the second half",
     -unbounded, 256, "kB", ownLimit},
    {"resources", "files", "files in folders for what is passing, after less before", -unbounded, 0,
     "files", ownLimit},
    {"resources", "queues", "message queues and shared memory, after less before", -unbounded, 0,
     "entries", ownLimit},
    {"resources", "memory", "growth of the heap an element, of the second half", -unbounded, 16,
     "kB", ownLimit},

    {"capability", "plays what it says", "types that are promised and whose clip does not play", 0,
     0, "types", canPlay},
    {"capability", "says what it plays", "types that are refused though their clip plays", 0, 0,
     "types", canPlay},
    {"capability", "its own list", "types of its own list that it refuses", 0, 0, "types", canPlay},
    {"capability", "nonsense", "types that nothing is of, and that are promised", 0, 0, "types",
     canPlay},
    {"capability", "sizes", "types refused though a larger picture of them is promised", 0, 0,
     "types", ownLimit},

    {"keys", "in time", "pictures not shown with the keys there from the beginning", 0, 0,
     "pictures", allIsPlayed},
    {"keys", "late", "pictures not shown when the keys come late", 0, 0, "pictures", allIsPlayed},
    {"keys", "wrong", "pictures readable under a wrong key", 0, 0, "pictures", ownLimit},
    {"keys", "revoked", "pictures readable whose key was revoked", 0, 0, "pictures", ownLimit},
    {"keys", "rotated", "pictures not shown when each half second has a key of its own", 0, 0,
     "pictures", allIsPlayed},
    {"keys", "sessions", "pictures not shown, of sessions at a time with 16 keys each", 0, 0,
     "pictures", allIsPlayed},
    {"keys", "given back", "decrypters made and not given back", 0, 0, "decrypters", ownLimit},

    {"mainsystem", "granted", "pictures not shown with the decoders granted", 0, 0, "pictures",
     ownLimit},
    {"mainsystem", "refused by the host", "pictures shown though the host refuses the decoders", 0,
     0, "pictures", ownLimit},
    {"mainsystem", "refused", "pictures shown though the main system refuses the decoders", 0, 0,
     "pictures", ownLimit},
    {"mainsystem", "late answer", "pictures lost when the main system answers 1 s late", 0, 0,
     "pictures", ownLimit},
    {"mainsystem", "release",
     "from an element's release to its decoder at the main system, which had asked for it", 0, 2000,
     "ms", ownLimit, oneWait},
    {"mainsystem", "death", "release of an element whose main system has died", 0, 1000, "ms",
     ownLimit, oneWait},
};

const unsigned int limitCount = sizeof limitTable / sizeof *limitTable;

const Limit& limitOf(const char* group, const std::string& check) {
    const auto behind = check.rfind(byUrl);
    const auto base = check.substr(0, behind);
    for (const auto& limit : limitTable)
        if (std::strcmp(limit.group, group) == 0 && base == limit.check)
            return limit;
    assert(!"a check without a row in the table of limits");
    return limitTable[0];
}

} // namespace qualify
