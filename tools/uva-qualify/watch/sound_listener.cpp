#include "watch/sound_listener.h"

#include <cmath>

namespace qualify {

namespace {

constexpr float loud = 0.2F;       // of the pulses' 0.5
constexpr double pause = 0.2;      // seconds of quiet before a pulse
constexpr double listened = 0.036; // seconds of a pulse's 0.040
constexpr double onset = 0.006;    // seconds of them in which codecs mix the tone with it
constexpr double lowest = 500;     // Hz, of second 0
constexpr double step = 200;       // Hz a second
constexpr double window = 0.010;   // seconds: some periods of the tone
constexpr double audible = 0.03;   // of the tone's 0.07, effective value

/// Hz, behind the onset.
double pitchOf(const std::vector<float>& samples, int rate) {
    int crossings = 0;
    std::size_t first = 0, last = 0;
    for (auto i = static_cast<std::size_t>(onset * rate) + 1; i < samples.size(); ++i) {
        if ((samples[i - 1] < 0) == (samples[i] < 0))
            continue;
        last = i;
        if (crossings++ == 0)
            first = i;
    }
    return last > first ? 0.5 * (crossings - 1) * rate / static_cast<double>(last - first) : 0;
}

} // namespace

void SoundListener::add(Clock::time_point time, int rate, const std::vector<float>& samples) {
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const auto played = std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(static_cast<double>(i) / rate));
        listenForPulse(time + played, rate, samples[i]);
        listenForTone(rate, samples[i]);
    }
}

void SoundListener::listenForPulse(Clock::time_point time, int rate, float sample) {
    const bool isLoud = std::abs(sample) > loud;
    if (!m_pulse.empty()) {
        m_pulse.push_back(sample);
        if (static_cast<double>(m_pulse.size()) >= listened * rate)
            finish(rate);
    } else if (isLoud && m_quiet >= pause) {
        m_begin = time;
        m_pulse.push_back(sample);
    }
    m_quiet = isLoud ? 0 : m_quiet + 1.0 / rate;
}

void SoundListener::listenForTone(int rate, float sample) {
    m_power += static_cast<double>(sample) * sample;
    if (++m_windowed < window * rate)
        return;
    if (std::sqrt(m_power / m_windowed) > audible)
        m_heard.tone += static_cast<double>(m_windowed) / rate;
    m_windowed = 0;
    m_power = 0;
}

void SoundListener::finish(int rate) {
    const auto second = std::lround((pitchOf(m_pulse, rate) - lowest) / step);
    m_heard.pulses.push_back({m_begin, static_cast<int>(second)});
    m_pulse.clear();
}

} // namespace qualify
