#include "watch/pulse_finder.h"

#include <cmath>

namespace qualify {

namespace {

constexpr float loud = 0.2F;       // of the pulses' 0.5
constexpr double pause = 0.2;      // seconds of quiet before a pulse
constexpr double listened = 0.030; // seconds of a pulse's 0.040 by which its pitch is told
constexpr double lowest = 500;     // Hz, of second 0
constexpr double step = 200;       // Hz a second

/// Hz.
double pitchOf(const std::vector<float>& samples, int rate) {
    int crossings = 0;
    std::size_t first = 0, last = 0;
    for (std::size_t i = 1; i < samples.size(); ++i) {
        if ((samples[i - 1] < 0) == (samples[i] < 0))
            continue;
        last = i;
        if (crossings++ == 0)
            first = i;
    }
    return last > first ? 0.5 * (crossings - 1) * rate / static_cast<double>(last - first) : 0;
}

} // namespace

void PulseFinder::add(Clock::time_point time, int rate, const std::vector<float>& samples) {
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const bool isLoud = std::abs(samples[i]) > loud;
        if (!m_pulse.empty()) {
            m_pulse.push_back(samples[i]);
            if (static_cast<double>(m_pulse.size()) >= listened * rate)
                finish(rate);
        } else if (isLoud && m_quiet >= pause) {
            m_begin = time + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(static_cast<double>(i) / rate));
            m_pulse.push_back(samples[i]);
        }
        m_quiet = isLoud ? 0 : m_quiet + 1.0 / rate;
    }
}

void PulseFinder::finish(int rate) {
    const auto second = std::lround((pitchOf(m_pulse, rate) - lowest) / step);
    m_pulses.push_back({m_begin, static_cast<int>(second)});
    m_pulse.clear();
}

} // namespace qualify
