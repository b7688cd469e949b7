#ifndef UVA_QUALIFY_LIMITS_H
#define UVA_QUALIFY_LIMITS_H

#include <limits>
#include <string>

namespace qualify {

/// A tolerance of a check. Bounds are inclusive; an infinite one is none.
struct Limit {
    const char* group;
    const char* check;
    const char* what; ///< what is measured
    double low, high;
    const char* unit;
    const char* source; ///< where the tolerance comes from
    /// How long this machine must have been busy elsewhere to explain one unit too much,
    /// milliseconds; 0: that explains nothing.
    double busy = 0;
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
