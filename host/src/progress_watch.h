#ifndef HOST_PROGRESS_WATCH_H
#define HOST_PROGRESS_WATCH_H

#include "host/media_element.h"

#include <chrono>
#include <optional>
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

/// "12.5 s"
std::string secondsText(double value);

/// Whether playback gets on: how long nothing has moved, counted from tick to tick, and what has
/// gone wrong. A tick that comes late counts no more than two: a process that was stopped for a
/// minute has not watched a stream stall for a minute.
class ProgressWatch {
public:
    /// Seconds: where playback is, and the target of the last seek.
    struct Place {
        double position = 0;
        double target = 0;
    };

    explicit ProgressWatch(const MediaElement::Options& options) : m_options(options) {}

    /// Media is opened; `server`: its host name, empty when it comes from files.
    void begin(std::string server);
    bool hasServer() const { return !m_server.empty(); }

    void restart() { m_still = Clock::duration::zero(); } ///< something moves
    Clock::duration still() const { return m_still; }
    /// True when this phase is to be given up. None: nothing is to move.
    bool tick(std::optional<Phase> phase, Clock::time_point now);
    Phase lastPhase() const { return m_phase.value_or(Phase::Playing); }

    void hearErrors();
    void forgetErrors(); ///< with a seek: what was wrong before it may not be wrong there
    bool hasError() const { return !m_error.empty(); }

    void decoderAsked(Clock::time_point time); ///< the main system is
    void decoderReturned() { m_decoderAsked.reset(); }
    bool hasAskedForDecoder() const { return m_decoderAsked.has_value(); }
    bool awaitsDecoder(Clock::time_point now) const;

    /// How long a request for samples may stay open that could be answered.
    Clock::duration patienceWithData() const;

    // Why playback was given up, and what to do: one line.
    std::string standstillText(Phase phase, const Place& place) const;
    std::string decodeErrorText(int reason, Clock::time_point time, const Place& place) const;
    std::string networkErrorText();

private:
    std::chrono::milliseconds boundFor(Phase phase) const;
    std::string explain(Phase phase, const Place& place, std::chrono::milliseconds time,
                        const std::string& error) const;
    std::string source() const { return hasServer() ? m_server : "the media's file"; }

    const MediaElement::Options& m_options;
    std::string m_server;
    std::optional<Phase> m_phase; // that is counted
    Clock::duration m_still{};
    Clock::time_point m_last{};
    std::optional<Clock::time_point> m_decoderAsked; // when
    std::string m_error; // the first one since the media was opened, or the last seek; empty: none
};

} // namespace host

#endif
