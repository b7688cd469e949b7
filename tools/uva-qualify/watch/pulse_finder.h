#ifndef UVA_QUALIFY_PULSE_FINDER_H
#define UVA_QUALIFY_PULSE_FINDER_H

#include "watch/watch.h"

#include <vector>

namespace qualify {

/// Finds the pulses of test clips in sound that comes piece by piece. A plain value.
class PulseFinder {
public:
    /// `time`: at which the first of these samples is played; `rate`: samples a second.
    void add(Clock::time_point time, int rate, const std::vector<float>& samples);

    const std::vector<HeardPulse>& pulses() const { return m_pulses; }

private:
    void finish(int rate);

    std::vector<HeardPulse> m_pulses;
    std::vector<float> m_pulse; ///< its samples so far; empty: none is under way
    Clock::time_point m_begin;
    double m_quiet = 1; ///< seconds since it was last loud
};

} // namespace qualify

#endif
