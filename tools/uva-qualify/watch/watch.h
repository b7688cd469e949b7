#ifndef UVA_QUALIFY_WATCH_H
#define UVA_QUALIFY_WATCH_H

#include "host/media_element.h"
#include "media/look.h"
#include "media/mark.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qualify {

using host::Clock;

/// An element numbers its sources from a multiple of this.
inline constexpr host::SourceId sourcesOfAnElement = 100;

/// A picture that was on screen.
struct SeenPicture {
    Clock::time_point time;   ///< since when
    std::optional<Mark> mark; ///< nothing: it cannot be read
    bool still = false;       ///< playback stood at it
    Look look;
};

/// Where in its second a pulse of a test clip begins, seconds: at the beginning of a picture.
inline constexpr double pulseAt = 0.4;

/// A pulse that came out of the loudspeaker.
struct HeardPulse {
    Clock::time_point time; ///< when it began
    int second = 0;         ///< of the clip
};

/// What came out of the loudspeaker.
struct HeardSound {
    std::vector<HeardPulse> pulses;
    double tone = 0; ///< seconds for which something was heard, pulses and what is between
};

/// What an element shows and plays, with times, since this was made. Bound to one thread.
class Watch {
public:
    virtual ~Watch();

    /// In the order of their showing. One that playback stood at and went on from is there once.
    virtual const std::vector<SeenPicture>& pictures() = 0;
    /// Waits until what is on screen now has been seen. Those that see every picture need no time
    /// for it.
    virtual void catchUp() {}
    /// Nothing: sound cannot be heard.
    virtual std::optional<HeardSound> sound() = 0;
    /// The pulses of it.
    std::optional<std::vector<HeardPulse>> pulses();
    /// The newest picture as a PNG file; empty: there is none.
    virtual std::string newestPng() = 0;
};

/// How an element's output is observed on this set.
class Observation {
public:
    virtual ~Observation();

    /// For reports: "every picture, in the sinks" for one.
    virtual const char* name() const = 0;
    /// Every picture is seen, and sound is heard. Else pictures are looked at now and then.
    virtual bool isExact() const = 0;
    /// How much later than shown a picture may be seen, milliseconds.
    virtual double lateness() const = 0;
    /// What of a time until a picture was seen is more than that; milliseconds, and not a number
    /// stays so.
    double beyondLateness(double milliseconds) const {
        const double rest = milliseconds - lateness();
        return rest < 0 ? 0 : rest;
    }

    /// `sources`: the number of the element's first source; 0: it plays a URL. The element outlives
    /// the watch.
    virtual std::unique_ptr<Watch> watch(host::MediaElement& element, host::SourceId sources) = 0;
};

/// Every picture and every sound, from the simulated set's sinks. One a process.
std::unique_ptr<Observation> observeSinks();
/// Pictures that the backend's capture gives, on any set.
std::unique_ptr<Observation> observeByCapture();

} // namespace qualify

#endif
