#include "clip_player.h"
#include "groups/groups.h"
#include "groups/pictures.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <thread>

namespace qualify {

namespace {

constexpr Milliseconds pictureBound{3000};
constexpr int captureGap = 12; // pictures that a capture may not see on a machine with much to do

/// How a target is missed.
struct Miss {
    int pictures = 0;
    std::string note;
};

class SeekChecks {
public:
    SeekChecks(Stage& stage, Findings& findings)
        : m_stage(stage), m_findings(findings), m_clip(stage.clips["main.mp4"]), m_player(stage) {}

    void run() {
        m_player.open(m_clip);
        m_player.pause();
        if (!m_player.waitForPicture(0))
            return m_findings.fail("paused", "no picture to begin with: " + m_player.story());
        whilePaused();
        toTheLast();
        whilePlaying();
        storm();
    }

private:
    std::size_t seen() { return m_player.watch().pictures().size(); }

    /// Waits until the picture of the target stands on screen.
    Miss missPaused(double target) {
        const auto behind = seen();
        const int wanted = numberAt(m_clip, target);
        const auto result = m_player.seek(target);
        if (!result || result->outcome != host::SeekOutcome::Succeeded)
            return {m_clip.pictures, "to " + plainNumber(target) + " s: no success"};
        int number = -1;
        waitUntil(
            [&] {
                const auto& pictures = m_player.watch().pictures();
                if (pictures.size() > behind && pictures.back().mark)
                    number = pictures.back().mark->number;
                return number == wanted;
            },
            pictureBound);
        if (number == wanted)
            return {};
        return {number < 0 ? m_clip.pictures : std::abs(number - wanted),
                "to " + plainNumber(target) + " s: picture " + std::to_string(number) +
                    " instead of " + std::to_string(wanted)};
    }

    void report(const char* check, const Miss& miss) {
        m_findings.measure(check, miss.pictures, miss.note, {},
                           evidenceOf(m_player.watch(), std::string("after the seek: ") + check));
    }

    void whilePaused() {
        Miss worst;
        for (const double target : {2.0, 0.5, 4.36, 10.0 / 3, 0.0, 5.0})
            worse(worst, missPaused(target));
        report("paused", worst);
    }

    void toTheLast() { report("last picture", missPaused(m_clip.seconds - m_clip.frame() / 2)); }

    void whilePlaying() {
        Miss worst;
        missPaused(0);
        m_player.play();
        int from = 5;
        for (const double target : {3.2, 0.48, 4.0}) {
            if (!m_player.waitForPicture(from))
                return m_findings.fail("playing", "it does not play: " + m_player.story());
            from = numberAt(m_clip, target) + 10;
            worse(worst, missPlaying(target));
        }
        report("playing", worst);
    }

    /// What is on its way may still be shown: the seek begins where numbers do not follow.
    Miss missPlaying(double target) {
        const auto behind = seen();
        const auto result = m_player.seek(target);
        if (!result || result->outcome != host::SeekOutcome::Succeeded)
            return {m_clip.pictures, "to " + plainNumber(target) + " s: no success"};
        return missPlayed(target, [this, behind, wanted = numberAt(m_clip, target)] {
            const auto& pictures = m_player.watch().pictures();
            auto at = std::max<std::size_t>(behind, 1);
            while (at < pictures.size() && follows(pictures[at - 1], pictures[at]) &&
                   pictures[at].mark->number != wanted)
                ++at;
            return at;
        });
    }

    /// Plays on until some pictures have followed the one that `landing` names, and it is the
    /// target's: a capture may show once more what stood there before.
    Miss missPlayed(double target, const std::function<std::size_t()>& landing) {
        constexpr int more = 5;
        Miss miss;
        const auto goesOn = [&] {
            const auto landed = landing();
            miss = missFrom(landed, target);
            return miss.pictures == 0 && seen() > landed + more;
        };
        if (!waitUntil(goesOn, pictureBound) && miss.pictures == 0)
            return {m_clip.pictures, "it does not play on: " + m_player.story()};
        return miss;
    }

    /// Whether it may be the next picture that is seen: captures see few of them.
    bool follows(const SeenPicture& before, const SeenPicture& picture) const {
        const int step =
            picture.mark && before.mark ? picture.mark->number - before.mark->number : 0;
        return step > 0 && step <= (m_stage.observation->isExact() ? 3 : captureGap);
    }

    Miss missFrom(std::size_t landed, double target) {
        const auto& pictures = m_player.watch().pictures();
        const auto to = "to " + plainNumber(target) + " s: ";
        if (landed >= pictures.size() || !pictures[landed].mark)
            return {m_clip.pictures, to + "no picture"};
        const int wanted = numberAt(m_clip, target);
        const int number = pictures[landed].mark->number;
        const int off = std::abs(number - wanted);
        if (off == 0 || (!m_stage.observation->isExact() && off <= captureGap))
            return {};
        return {off,
                to + "picture " + std::to_string(number) + " instead of " + std::to_string(wanted)};
    }

    void storm() {
        std::mt19937 random(1);
        std::uniform_real_distribution<double> anywhere(0, m_clip.seconds - 0.5);
        const int count = m_stage.isShort() ? 30 : 300;
        for (int i = 0; i < count; ++i) {
            m_player.element().seek(anywhere(random));
            std::this_thread::sleep_for(Milliseconds(random() % 20));
        }
        // The last one is what counts, and it is known by its picture.
        constexpr double target = 1.0 / 3;
        const auto last = m_player.element().seek(target);
        const auto result = m_player.waitForSeek(last);
        if (!result || result->outcome != host::SeekOutcome::Succeeded)
            return m_findings.fail("storm", "the last seek did not succeed: " + m_player.story());
        report("storm", missPlayed(target, [this, wanted = numberAt(m_clip, target)] {
                   const auto& pictures = m_player.watch().pictures();
                   auto at = pictures.size();
                   if (at > 0)
                       --at;
                   while (at > 0 && pictures[at].mark && pictures[at].mark->number > wanted &&
                          follows(pictures[at - 1], pictures[at]))
                       --at;
                   return at;
               }));
    }

    static void worse(Miss& worst, const Miss& miss) {
        if (miss.pictures > worst.pictures)
            worst = miss;
    }

    Stage& m_stage;
    Findings& m_findings;
    const Clip& m_clip;
    Player m_player;
};

} // namespace

void checkSeek(Stage& stage, Findings& findings) {
    SeekChecks(stage, findings).run();
}

} // namespace qualify
