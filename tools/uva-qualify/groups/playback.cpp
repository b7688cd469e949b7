#include "clip_player.h"
#include "groups/groups.h"
#include "groups/pictures.h"
#include "limits.h"

#include <algorithm>
#include <cmath>
#include <thread>

namespace qualify {

namespace {

constexpr Milliseconds firstBound{5000}; // for the first picture, which is measured
constexpr const char* noSound = "sound cannot be observed on this set";
constexpr const char* samplesOnly = "captured pictures are only some of those that are shown";

/// Where playback said that it was.
struct PositionSample {
    Clock::time_point time;
    double position = 0; ///< seconds
};

/// A clip from its beginning to its end. The names of its checks differ by their ending.
class WholePlayback {
public:
    WholePlayback(Stage& stage, Findings& findings, const Clip& clip, bool url)
        : m_stage(stage), m_findings(findings), m_clip(clip), m_url(url),
          m_player(stage, {host::ResourcePolicy::Grant, url, 0}) {}

    void run() {
        m_findings.beginMeasuring();
        m_player.open(m_clip);
        const auto begin = m_player.play();
        if (!m_player.waitForPicture(0, 0, firstBound))
            return fail("end", "no picture that can be read is shown; " + m_player.story());
        const bool ended = playToTheEnd();
        m_player.watch().catchUp();
        m_pictures = m_player.watch().pictures();
        if (!ended)
            return fail("end", "it did not end: " + m_player.story());
        checkEnds(begin);
        checkSequence();
        checkSound();
        checkPosition();
        if (m_url) // of what is fed samples the page tells it
            checkDuration();
        checkDrift();
    }

private:
    std::string called(const char* check) const { return check + std::string(m_url ? byUrl : ""); }
    void fail(const char* check, const std::string& why) {
        m_findings.fail(called(check), why,
                        evidenceOf(m_player.watch(), "the last picture that was seen"));
    }
    void measure(const char* check, double value, const std::string& note = {},
                 std::vector<Series> series = {}) {
        m_findings.measure(called(check), value, note, std::move(series));
    }

    bool playToTheEnd() {
        const auto bound = Milliseconds(static_cast<int>(m_clip.seconds * 1000)) + longBound;
        return waitUntil(
                   [this] {
                       m_positions.push_back({Clock::now(), m_player.element().position()});
                       const auto state = m_player.status().state;
                       return state == host::State::Ended || state == host::State::Failed;
                   },
                   bound) &&
               !m_player.isFailed();
    }

    void checkEnds(Clock::time_point begin) {
        measure("start",
                m_stage.observation->beyondLateness(milliseconds(begin, m_pictures.front().time)),
                "", {intervalsOf(m_pictures, "from picture to picture")});
        const auto sequence = sequenceOf(m_pictures);
        const bool exact = m_stage.observation->isExact();
        if (!exact)
            m_findings.notJudged(called("first picture"), samplesOnly);
        else
            measure("first picture", sequence.first);
        const int last = m_clip.pictures - 1;
        // The last one stays on screen: whoever looks now and then sees it too.
        m_findings.measure(called("last picture"), last - sequence.last, "", {},
                           evidenceOf(m_player.watch(), "the last picture"));
        measure("end", 0);
    }

    void checkSequence() {
        const auto sequence = sequenceOf(m_pictures);
        measure("order", sequence.faults(), sequence.oddities);
        if (!m_stage.observation->isExact())
            return m_findings.notJudged(called("drops"), samplesOnly);
        constexpr double stretch = 15; // seconds
        const double allowed = std::max(1.0, std::ceil(m_clip.seconds / stretch));
        measure("drops", sequence.missing / allowed,
                sequence.oddities.empty() ? "none in " + plainNumber(m_clip.seconds) + " s"
                                          : sequence.oddities);
    }

    void checkSound() {
        const auto heard = m_player.watch().sound();
        if (!heard) {
            for (const char* check : {"sound", "tone", "lip sync"})
                m_findings.notJudged(called(check), noSound);
            return;
        }
        const auto* pulses = &heard->pulses;
        const auto seconds = static_cast<int>(m_clip.seconds);
        Series offsets{"picture after sound", "ms", {}, -120, 40, "s"};
        int inside = 0;
        for (const auto& pulse : *pulses) {
            const auto shown = timeOf(m_pictures, numberAt(m_clip, pulse.second + pulseAt));
            if (!shown)
                continue;
            const double offset = milliseconds(pulse.time, *shown);
            offsets.points.emplace_back(pulse.second, offset);
            inside += offset >= *offsets.low && offset <= *offsets.high ? 1 : 0;
        }
        measure("sound", unheard(*pulses, seconds),
                std::to_string(pulses->size()) + " pulses in " + std::to_string(seconds) + " s");
        measure("tone", (m_clip.seconds - heard->tone) * 1000,
                "heard for " + plainNumber(heard->tone) + " s");
        const auto count = offsets.points.size();
        if (count == 0)
            return fail("lip sync", "no pulse was heard beside its picture");
        measure("lip sync", 100.0 * inside / static_cast<double>(count),
                std::to_string(count) + " pulses", {offsets});
    }

    void checkPosition() {
        Series errors{"position less picture", "ms", {}, {}, {}, "s"};
        double worst = 0;
        const auto& first = m_pictures.front();
        const auto& last = m_pictures.back();
        for (const auto& sample : m_positions) {
            if (sample.time < first.time || sample.time > last.time)
                continue;
            const auto* shown = pictureAt(m_pictures, sample.time);
            if (shown == nullptr || !shown->mark)
                continue;
            const double error = sample.position * 1000 - shown->mark->time;
            worst = std::isfinite(error) ? std::max(worst, std::abs(error)) : error;
            if (!std::isfinite(worst))
                break;
            errors.points.emplace_back(secondsBetween(first.time, sample.time), error);
        }
        const double frame = m_clip.frame() * 1000;
        measure("position", m_stage.observation->beyondLateness(worst - frame),
                "worst " + plainNumber(worst) + " ms, less a picture of " + plainNumber(frame) +
                    " ms",
                {errors});
    }

    void checkDuration() {
        measure("duration", (m_player.status().duration - m_clip.seconds) * 1000,
                "says " + plainNumber(m_player.status().duration) + " s");
    }

    void checkDrift() {
        const auto pace = paceOf(m_pictures);
        if (pace.points.size() < 2)
            return fail("drift", "too few pictures can be read");
        measure("drift", worstOf(pace), "over " + plainNumber(pace.points.back().first) + " s",
                {pace});
    }

    Stage& m_stage;
    Findings& m_findings;
    const Clip& m_clip;
    const bool m_url;
    Player m_player;
    std::vector<SeenPicture> m_pictures;
    std::vector<PositionSample> m_positions;
};

} // namespace

void checkPlayback(Stage& stage, Findings& findings) {
    const auto& clip = stage.clips[stage.isShort() ? "short.mp4" : "long.mp4"];
    for (const bool url : {false, true})
        WholePlayback(stage, findings, clip, url).run();
}

} // namespace qualify
