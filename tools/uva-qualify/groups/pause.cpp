#include "clip_player.h"
#include "groups/groups.h"
#include "groups/pictures.h"

#include <algorithm>
#include <cmath>
#include <thread>

namespace qualify {

namespace {

constexpr Milliseconds pausedFor{300};
constexpr Milliseconds settled{100}; // behind pause(); a position that is told is as old at most

/// What all pauses did, at their worst.
struct Pauses {
    double stops = 0; ///< milliseconds
    double moves = 0; ///< milliseconds
    double pace = 0;  ///< milliseconds
    int pulses = 0;
    std::string failure;
};

/// Until a picture is shown. False: it does not come.
bool playTo(Player& player, int number, Pauses& worst) {
    const auto before = player.watch().pictures().size();
    player.play();
    if (!player.waitForPicture(number))
        return false;
    const double pace = worstOf(paceOf(player.watch().pictures(), before));
    if (std::abs(pace) > std::abs(worst.pace))
        worst.pace = pace;
    return true;
}

void pauseOnce(Player& player, Pauses& worst) {
    const auto paused = player.pause();
    if (!player.waitFor(host::State::Paused)) {
        worst.failure = "no pause: " + player.story();
        return;
    }
    std::this_thread::sleep_until(paused + settled);
    const double position = player.element().position();
    std::this_thread::sleep_for(pausedFor);
    const auto now = Clock::now();
    worst.moves = std::max(worst.moves, std::abs(player.element().position() - position) * 1000);
    const auto* last = pictureAt(player.watch().pictures(), now);
    if (last != nullptr)
        worst.stops = std::max(worst.stops, milliseconds(paused, last->time));
    for (const auto& pulse : player.watch().pulses().value_or(std::vector<HeardPulse>()))
        worst.pulses += pulse.time > paused + settled && pulse.time < now ? 1 : 0;
}

} // namespace

void checkPause(Stage& stage, Findings& findings) {
    const auto& clip = stage.clips["main.mp4"];
    Player player(stage);
    findings.beginMeasuring();
    player.open(clip);
    const int pauses = stage.isShort() ? 3 : 5;
    Pauses worst;
    int number = 10;
    for (int i = 0; i < pauses && worst.failure.empty(); ++i) {
        if (playTo(player, number, worst))
            pauseOnce(player, worst);
        else
            worst.failure = "it does not play: " + player.story();
        number += 23; // at another place between two pictures, of a clip with 25 a second
    }
    if (!worst.failure.empty())
        return findings.fail("stops", worst.failure);
    findings.measure("stops", stage.observation->beyondLateness(worst.stops));
    findings.measure("stands", worst.moves);
    if (player.watch().pulses())
        findings.measure("silent", worst.pulses);
    else
        findings.notJudged("silent", "sound cannot be observed on this set");

    if (!playTo(player, number, worst))
        return findings.fail("goes on", "it does not go on: " + player.story());
    findings.measure("pace", worst.pace);
    const auto& pictures = player.watch().pictures();
    const auto sequence = sequenceOf(pictures);
    if (!stage.observation->isExact())
        return findings.notJudged("goes on",
                                  "captured pictures are only some of those that are shown");
    findings.measure("goes on", sequence.missing + sequence.faults(), sequence.oddities,
                     {intervalsOf(pictures, "from picture to picture")},
                     evidenceOf(player.watch(), "the last picture"));
}

} // namespace qualify
