#ifndef HOST_PROGRESS_WATCH_H
#define HOST_PROGRESS_WATCH_H

#include "host/record.h"

#include <algorithm>
#include <chrono>
#include <string>

namespace host {

/// What playback waits for, when it should get on.
enum class Phase {
    Connecting,        ///< to a server of which nothing has come yet
    Opening,           ///< until something is played
    WaitingForDecoder, ///< the main system has been asked for it
    Playing,
    Seeking,        ///< until something is played from the target on
    WaitingForData, ///< something was played; the network, or who feeds, is behind
    WaitingForKey,  ///< samples are held back
};

/// How long a phase may last without progress; 0: for ever.
std::chrono::milliseconds boundOf(Phase phase);

/// What is put into a phase's sentence.
struct Standstill {
    std::string server; ///< empty: the media comes from files
    double position = 0;
    double target = 0;                  ///< of the last seek
    std::chrono::milliseconds bound{0}; ///< that was not kept
};

/// Why playback was given up, and what to do: one line. `error`: what the framework beneath the
/// backend reported; empty: nothing, it is the standstill that tells.
std::string explain(Phase phase, const Standstill& standstill, const std::string& error);

/// "12.5 s"
std::string secondsText(double value);

/// How long nothing has moved, counted from tick to tick. A tick that comes late counts no more
/// than two: a process that was stopped for a minute has not watched a stream stall for a minute.
class ProgressWatch {
public:
    explicit ProgressWatch(Clock::duration tick) : m_tick(tick) {}

    void restart() { m_still = Clock::duration::zero(); }
    Clock::duration still() const { return m_still; }

    void tick(Clock::time_point now) {
        m_still += std::clamp<Clock::duration>(now - m_last, Clock::duration::zero(), 2 * m_tick);
        m_last = now;
    }

private:
    const Clock::duration m_tick;
    Clock::duration m_still{};
    Clock::time_point m_last{};
};

} // namespace host

#endif
