#ifndef UVA_REPLAY_COMPARE_H
#define UVA_REPLAY_COMPARE_H

#include "record.h"

#include <chrono>
#include <string>
#include <vector>

namespace replay {

/// Something that a replay did other than the record.
struct Difference {
    enum class Kind {
        Answer,
        Position,
        Duration,
        EventMissing,
        EventOther,
        EventMore,
        EventLate,
        Call,
        Crash,
        Hang
    };

    Kind kind = Kind::Answer;
    std::string what;       ///< the operation or the type of the event
    std::uint64_t time = 0; ///< in the record, nanoseconds
    std::string text;       ///< one line, without the time
};

const char* nameOf(Difference::Kind kind);

/// The same failure, wherever in the record it shows.
bool isSame(const Difference& one, const Difference& other);

struct Bounds {
    std::chrono::milliseconds time{
        1000};         ///< that a call or an event may take longer, or positions differ
    bool fast = false; ///< the replay had other times: what moves with the media is not compared
};

/// What the second record, of a replay, has other than the first; in the order of the record's
/// time.
std::vector<Difference> compare(const record::Record& before, const record::Record& after,
                                const Bounds& bounds);

} // namespace replay

#endif
