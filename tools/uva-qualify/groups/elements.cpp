#include "clip_player.h"
#include "groups/groups.h"
#include "groups/pictures.h"

#include <algorithm>
#include <memory>

namespace qualify {

namespace {

void playTogether(Stage& stage, Findings& findings, unsigned int count, double seconds) {
    const auto check = std::to_string(count) + " at a time";
    if (count > stage.elements)
        return findings.notJudged(check, "the set plays fewer, says --elements");
    const auto& clip = stage.clips["main.mp4"];
    findings.beginMeasuring();
    std::vector<std::unique_ptr<Player>> players;
    for (unsigned int i = 0; i < count; ++i) {
        players.push_back(std::make_unique<Player>(stage));
        players.back()->open(clip);
        players.back()->play();
    }
    const int wanted = static_cast<int>(seconds * clip.rate);
    int worst = 0;
    std::string note;
    for (auto& player : players) {
        const int missing = unseen(*player, stage, wanted);
        if (missing > worst)
            note = player->story();
        worst = std::max(worst, missing);
    }
    findings.measure(check, worst, note, {},
                     evidenceOf(players.back()->watch(), "what the last element shows"));
}

} // namespace

void checkElements(Stage& stage, Findings& findings) {
    const double seconds = stage.isShort() ? 0.5 : 5;
    for (const unsigned int count : {1U, 2U, 4U, 8U})
        playTogether(stage, findings, count, seconds);
}

} // namespace qualify
