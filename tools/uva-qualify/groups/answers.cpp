#include "bare_element.h"
#include "groups/groups.h"
#include "groups/pictures.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <thread>

namespace qualify {

namespace {

constexpr Milliseconds heardOut{1000}; // behind the end: for another one
constexpr double nothing = std::numeric_limits<double>::quiet_NaN();

/// A position, and when it was asked for.
struct Told {
    Clock::time_point time;
    UVATime position;
    double now; ///< by the clock of the host interface
};

/// The one that is further from 0; not a number is furthest.
double further(double worst, double value) {
    return std::isnan(worst) || std::abs(value) <= std::abs(worst) ? worst : value;
}

class AnswerChecks {
public:
    AnswerChecks(Stage& stage, Findings& findings)
        : m_findings(findings), m_clip(stage.clips["wide.mp4"]), m_element(stage, m_clip) {}

    void run() {
        if (!m_element.isThere())
            return m_findings.fail("end", "the library gives no backend");
        m_findings.beginMeasuring();
        m_element.ask([](UVAMediaBackend& backend) { return backend.play(); });
        if (!waitUntil([this] { return position().position.position > 0.1; }))
            return m_findings.fail("end", "its position does not move");
        askOnce();
        const bool ended = playToTheEnd();
        judgePositions();
        m_findings.measure("duration", m_duration * 1000, "worst of several answers");
        if (!ended)
            return m_findings.fail("end", "the end is not told");
        judgeEnd();
    }

private:
    Told position() {
        return m_element.ask([](UVAMediaBackend& backend) {
            const auto told = backend.getPosition();
            return Told{Clock::now(), told, UVATime::Timestamp()};
        });
    }
    /// By how much an answer is off, seconds.
    double durationError() {
        return m_element.ask([this](UVAMediaBackend& backend) {
            double seconds = nothing;
            const bool known = backend.getDuration(seconds) == UVABackend::Success;
            return known ? seconds - m_clip.seconds : nothing;
        });
    }

    void askOnce() {
        judgeSize();
        m_findings.measure("seekable", seekableError() * 1000, "beginning and end, in all");
        m_findings.measure("speeds", wrongSpeeds());
        m_findings.measure("volume", wrongVolumes());
    }

    void judgeSize() {
        std::vector<BareElement::Metadata> told = m_element.metadata();
        told.push_back(m_element.ask([](UVAMediaBackend& backend) {
            BareElement::Metadata size;
            backend.getNativeSize(size.width, size.height, size.pixelAspect);
            return size;
        }));
        // The first ones may come before a picture has been decoded.
        told.erase(std::remove_if(told.begin(), told.end(),
                                  [](const auto& size) { return size.width == -1; }),
                   told.end());
        if (told.empty())
            return m_findings.fail("size", "no size is told");
        int off = 0;
        double aspect = 0;
        for (const auto& size : told) {
            off = std::max(off, std::abs(size.width - m_clip.width) +
                                    std::abs(size.height - m_clip.height));
            aspect = further(aspect, (size.pixelAspect / m_clip.pixelAspect - 1) * 100);
        }
        const auto& last = told.back();
        m_findings.measure("size", off,
                           std::to_string(last.width) + " by " + std::to_string(last.height));
        m_findings.measure("pixel aspect", aspect, "says " + plainNumber(last.pixelAspect));
    }

    /// Seconds. The end is told in nanoseconds.
    double seekableError() {
        return m_element.ask([this](UVAMediaBackend& backend) {
            UVABackend::TimeRange** ranges = nullptr;
            UVABackend::ByteRange* bytes = nullptr;
            if (backend.getSeekableTimeRanges(&bytes, ranges) != UVABackend::Success ||
                ranges == nullptr || ranges[0] == nullptr)
                return nothing;
            double error =
                std::abs(ranges[0]->start) + std::abs(ranges[0]->end / 1e9 - m_clip.seconds);
            for (auto** range = ranges; *range != nullptr; ++range) {
                error += range == ranges ? 0 : (*range)->end / 1e9 - (*range)->start / 1e9;
                delete *range;
            }
            delete[] ranges;
            return error;
        });
    }

    /// Each speed that it offers is taken, and one that it does not offer is refused.
    int wrongSpeeds() {
        return m_element.ask([](UVAMediaBackend& backend) {
            std::vector<UVAMediaBackend::SpeedRange> ranges;
            if (backend.getPlaybackSpeedRanges(ranges) != UVABackend::Success || ranges.empty())
                return 1;
            int wrong = 0;
            double fastest = 0;
            bool isNormalOffered = false;
            for (const auto& range : ranges) {
                const bool ordered = range.minimum <= range.maximum;
                wrong += ordered ? 0 : 1;
                isNormalOffered |= range.minimum <= 1 && range.maximum >= 1;
                fastest = std::max(fastest, range.maximum);
            }
            for (const double speed : {fastest, 1.0}) // the last one stays
                wrong += backend.setPlaybackRate(speed) == UVABackend::Success ? 0 : 1;
            wrong += backend.setPlaybackRate(fastest * 2) == UVABackend::Success ? 1 : 0;
            return wrong + (isNormalOffered ? 0 : 1);
        });
    }

    int wrongVolumes() {
        return m_element.ask([](UVAMediaBackend& backend) {
            int wrong = backend.setVolume(nothing) == UVABackend::Success ? 1 : 0;
            for (const double volume : {0.0, 0.5, 1.0})
                wrong += backend.setVolume(volume) == UVABackend::Success ? 0 : 1;
            return wrong;
        });
    }

    bool playToTheEnd() {
        const auto bound = Milliseconds(static_cast<int>(m_clip.seconds * 1000)) + longBound;
        return waitUntil(
            [this] {
                m_told.push_back(position());
                m_duration = further(m_duration, durationError());
                return !m_element.ends().empty();
            },
            bound);
    }

    /// Those of a playback that is under way.
    void judgePositions() {
        m_told.erase(std::remove_if(m_told.begin(), m_told.end(),
                                    [this](const auto& told) {
                                        const double seconds = told.position.position;
                                        return std::isfinite(seconds) &&
                                               seconds > m_clip.seconds - 0.2;
                                    }),
                     m_told.end());
        if (m_told.size() < 2)
            return m_findings.fail("pace", "too few positions are told");
        double taken = 0, named = 0;
        for (const auto& told : m_told) {
            taken = further(taken, told.position.timestamp - told.now);
            taken = further(taken, told.position.mediaPosition - told.position.position);
            named = further(named, told.position.rate - 1);
        }
        fitPace();
        m_findings.measure("pace", m_pace * 100, std::to_string(m_told.size()) + " positions");
        m_findings.measure("rate", named * 100);
        m_findings.measure("taken at", taken * 1000);
    }

    /// The line through all positions, by least squares.
    void fitPace() {
        double times = 0, positions = 0, products = 0, squares = 0;
        const auto count = static_cast<double>(m_told.size());
        const auto begin = m_told.front().time;
        for (const auto& told : m_told) {
            const double time = secondsBetween(begin, told.time);
            times += time;
            positions += told.position.position;
            products += time * told.position.position;
            squares += time * time;
        }
        m_pace = (count * products - times * positions) / (count * squares - times * times);
        const double atBegin = (positions - m_pace * times) / count;
        m_expectedEnd = begin + std::chrono::duration_cast<Clock::duration>(
                                    std::chrono::duration<double>((m_clip.seconds - atBegin)));
    }

    void judgeEnd() {
        std::this_thread::sleep_for(heardOut);
        const auto ends = m_element.ends();
        m_findings.measure("end", milliseconds(m_expectedEnd, ends.front()),
                           "against where the positions lead");
        m_findings.measure("ends", static_cast<double>(ends.size()));
    }

    Findings& m_findings;
    const Clip& m_clip;
    BareElement m_element;
    std::vector<Told> m_told;
    double m_duration = 0; ///< by which it is off, worst; seconds
    double m_pace = 0;
    Clock::time_point m_expectedEnd;
};

} // namespace

void checkAnswers(Stage& stage, Findings& findings) {
    AnswerChecks(stage, findings).run();
}

} // namespace qualify
