#include "clip_player.h"
#include "groups/groups.h"
#include "groups/pictures.h"

#include <algorithm>
#include <random>
#include <thread>

namespace qualify {

namespace {

/// What an element is doing when it is released. Random moments, the same in every run.
class Moments {
public:
    explicit Moments(Stage& stage) : m_stage(stage), m_clip(stage.clips["main.mp4"]) {}

    /// How long the release took, seconds; nothing: it did not come back.
    std::optional<double> releaseAt(int moment) {
        const bool url = moment % 2 == 1;
        Player player(m_stage, {host::ResourcePolicy::Grant, url, 0});
        player.open(m_clip);
        player.play();
        switch (moment % 5) {
        case 0: // while it opens
            wait(30);
            break;
        case 1: // while it plays
            player.waitForPicture(static_cast<int>(m_random() % 10));
            break;
        case 2: // while it seeks
            player.waitForPicture(0);
            for (int i = 0; i < 3; ++i)
                player.element().seek(static_cast<double>(m_random() % 5));
            wait(40);
            break;
        case 3: // while it pauses
            player.waitForPicture(0);
            player.pause();
            wait(40);
            break;
        default: // while it ends
            player.waitForPicture(0);
            player.element().seek(m_clip.seconds - m_clip.frame());
            wait(200);
        }
        return player.release();
    }

private:
    void wait(unsigned int most) { std::this_thread::sleep_for(Milliseconds(m_random() % most)); }

    Stage& m_stage;
    const Clip& m_clip;
    std::mt19937 m_random{1};
};

} // namespace

void checkRelease(Stage& stage, Findings& findings) {
    findings.beginMeasuring();
    Player idle(stage);
    const auto first = idle.release();
    if (first)
        findings.measure("idle", *first * 1000);
    else
        findings.fail("idle", "it did not come back in 10 s");

    Moments moments(stage);
    Series times{"release", "ms", {}, {}, 1000, "elements"};
    double worst = 0;
    const int count = stage.isShort() ? 20 : 200;
    for (int i = 0; i < count; ++i) {
        const auto seconds = moments.releaseAt(i);
        if (!seconds)
            return findings.fail("any moment",
                                 "release " + std::to_string(i) + " did not come back in 10 s");
        worst = std::max(worst, *seconds * 1000);
        times.points.emplace_back(i, *seconds * 1000);
    }
    findings.measure("any moment", worst, "of " + std::to_string(count), {times});
}

} // namespace qualify
