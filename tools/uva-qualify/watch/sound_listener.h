#ifndef UVA_QUALIFY_SOUND_LISTENER_H
#define UVA_QUALIFY_SOUND_LISTENER_H

#include "watch/watch.h"

#include <vector>

namespace qualify {

/// Listens to the sound of test clips, which comes piece by piece. A plain value.
class SoundListener {
public:
    /// `time`: at which the first of these samples is played; `rate`: samples a second.
    void add(Clock::time_point time, int rate, const std::vector<float>& samples);

    const HeardSound& heard() const { return m_heard; }

private:
    void listenForPulse(Clock::time_point time, int rate, float sample);
    void listenForTone(int rate, float sample);
    void finish(int rate);

    HeardSound m_heard;
    std::vector<float> m_pulse; ///< its samples so far; empty: none is under way
    Clock::time_point m_begin;
    double m_quiet = 1; ///< seconds since it was last loud
    int m_windowed = 0; ///< samples so far of the window in which it is listened for the tone
    double m_power = 0; ///< the sum of their squares
};

} // namespace qualify

#endif
