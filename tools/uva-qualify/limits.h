#ifndef UVA_QUALIFY_LIMITS_H
#define UVA_QUALIFY_LIMITS_H

#include <limits>

namespace qualify {

/// A tolerance of a check. Bounds are inclusive; an infinite one is none.
struct Limit {
    const char* group;
    const char* check;
    const char* what; ///< what is measured
    double low, high;
    const char* unit;
    const char* source; ///< where the tolerance comes from
    /// A program that waits for a processor measures too much of it.
    enum class Of { Time, Other } of = Of::Other;
};

inline constexpr double unbounded = std::numeric_limits<double>::infinity();

/// All tolerances, the groups in their order.
extern const Limit limitTable[];
extern const unsigned int limitCount;

/// A row that is not there is an error of the caller's.
const Limit& limitOf(const char* group, const char* check);

} // namespace qualify

#endif
