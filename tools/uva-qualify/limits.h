#ifndef UVA_QUALIFY_LIMITS_H
#define UVA_QUALIFY_LIMITS_H

#include <limits>
#include <string>

namespace qualify {

/// How late a busy machine makes what is measured: a value beyond its tolerance by less than that
/// is not judged. Only for what is a matter of time: no machine is an excuse for a picture that is
/// lost, twice or damaged.
struct Excuse {
    double wait =
        0; ///< ms of waiting for a processor that explain a unit too much; 0: nothing does
    bool isSum = false; ///< all waits of a thread count, else only the longest
};

/// A tolerance of a check. Bounds are inclusive; an infinite one is none.
struct Limit {
    const char* group;
    const char* check;
    const char* what; ///< what is measured
    double low, high;
    const char* unit;
    const char* source; ///< where the tolerance comes from
    Excuse excuse = {};
};

inline constexpr double unbounded = std::numeric_limits<double>::infinity();

/// All tolerances, the groups in their order.
extern const Limit limitTable[];
extern const unsigned int limitCount;

/// How the name of a check ends that is made once more by URL. Its row is that of the other.
inline constexpr const char* byUrl = " by URL";

/// A row that is not there is an error of the caller's.
const Limit& limitOf(const char* group, const std::string& check);

} // namespace qualify

#endif
