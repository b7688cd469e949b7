#include "clip_player.h"
#include "groups/groups.h"
#include "groups/pictures.h"
#include "tracks.h"

#include <algorithm>
#include <thread>

namespace qualify {

namespace {

constexpr Milliseconds missingFor{700}; // before the rest comes

/// `before`: pictures that came before the rest of the samples.
void judgeUnderflow(Stage& stage, Findings& findings, const Clip& clip, Player& player,
                    std::size_t before) {
    const auto& pictures = player.watch().pictures();
    const auto sequence = sequenceOf(pictures);
    if (stage.observation->isExact())
        findings.measure("pictures",
                         stage.length() * clip.rate - 1 - sequence.last +
                             std::max(0, sequence.first) + sequence.missing + sequence.faults(),
                         sequence.oddities, {intervalsOf(pictures, "from picture to picture")},
                         evidenceOf(player.watch(), "the last picture"));
    else
        findings.notJudged("pictures", "captured pictures are only some of those that are shown");
    const auto pace = paceOf(pictures, before);
    findings.measure("pace", worstOf(pace), "", {pace});
    const auto pulses = player.watch().pulses();
    if (pulses)
        findings.measure("sound", unheard(*pulses, stage.length()));
    else
        findings.notJudged("sound", "sound cannot be observed on this set");
}

} // namespace

void checkUnderflow(Stage& stage, Findings& findings) {
    const auto& clip = stage.clips["main.mp4"];
    const double pieceEnd = stage.length() / 3; // seconds of the clip that are there at first
    const auto tracks = loadTracks(clip);
    Buffers buffers(tracks);
    buffers.append(tracks, 0, pieceEnd);
    Player player(stage);
    findings.beginMeasuring();
    player.openStreams(buffers.streams());
    player.play();
    const bool held = waitUntil([&] {
        return player.starvedTimes() > 0 && player.status().state == host::State::Buffering;
    });
    if (!held)
        return findings.fail("held", "playback is not held: " + player.story());
    std::this_thread::sleep_for(missingFor);
    findings.measure("held", (player.element().position() - pieceEnd) * 1000,
                     "at " + plainNumber(player.element().position()) + " s");

    const auto before = player.watch().pictures().size();
    const auto filled = Clock::now();
    buffers.append(tracks, pieceEnd, stage.length());
    buffers.end();
    if (!waitUntil([&] { return player.watch().pictures().size() > before; }))
        return findings.fail("recovery", "it does not go on: " + player.story());
    findings.measure("recovery", stage.observation->beyondLateness(
                                     milliseconds(filled, player.watch().pictures()[before].time)));
    if (!player.waitFor(host::State::Ended))
        return findings.fail("pictures", "it does not end: " + player.story());
    judgeUnderflow(stage, findings, clip, player, before);
}

} // namespace qualify
