#include "clip_player.h"
#include "groups/groups.h"
#include "groups/pictures.h"
#include "limits.h"
#include "main_system.h"

#include <cstring>
#include <thread>

namespace qualify {

namespace {

constexpr const char* notOurs =
    "the set's own main system cannot be commanded; name a zant-mainsys "
    "with --main-system on a simulated set";
constexpr const char* nobody = "nobody arbitrates the decoders: run without --standalone";
constexpr int picturesTried = 25; // pictures

class MainSystemChecks {
public:
    MainSystemChecks(Stage& stage, Findings& findings, MainSystem* commanded)
        : m_stage(stage), m_findings(findings), m_main(commanded), m_clip(stage.clips["main.mp4"]) {
    }

    void run() {
        m_findings.beginMeasuring();
        freeDecoders("grant");
        m_findings.measure("granted", missing());
        refusedByTheHost();
        if (m_main == nullptr) {
            for (const char* check : {"refused", "late answer", "release", "death"})
                m_findings.notJudged(check, notOurs);
            return;
        }
        refused();
        lateAnswer();
        askedBack();
        death();
    }

private:
    /// Decoders that an earlier element was granted are asked for again.
    void freeDecoders(const std::string& then) {
        if (m_main == nullptr)
            return;
        m_main->say("release both");
        m_main->say(then);
    }

    int missing() {
        Player player(m_stage);
        player.open(m_clip);
        player.play();
        return unseen(player, m_stage, picturesTried);
    }

    /// Pictures that come all the same.
    double shownOf(Player& player) {
        player.open(m_clip);
        player.play();
        std::this_thread::sleep_for(Milliseconds(700));
        return static_cast<double>(player.watch().pictures().size());
    }

    /// It answers for what plays a URL.
    void refusedByTheHost() {
        freeDecoders("grant");
        Player player(m_stage, {host::ResourcePolicy::Deny, true, 0});
        const double shown = shownOf(player);
        m_findings.measure("refused by the host", shown, player.story());
    }

    void refused() {
        freeDecoders("refuse");
        Player player(m_stage);
        const double shown = shownOf(player);
        m_findings.measure("refused", shown, player.story());
    }

    void lateAnswer() {
        m_findings.beginMeasuring();
        freeDecoders("grant\ndelay 1");
        m_findings.measure("late answer", missing());
        m_main->say("delay 0");
    }

    void askedBack() {
        freeDecoders("grant");
        Player player(m_stage);
        player.open(m_clip);
        player.play();
        if (!player.waitForPicture(5))
            return m_findings.fail("release", "it does not play: " + player.story());
        m_findings.beginMeasuring();
        m_main->say("release video");
        std::this_thread::sleep_for(Milliseconds(300)); // the wish is known, and it plays
        const auto released = Clock::now();
        player.release();
        const auto answered = m_main->waitForLine("DECODER_RELEASE_RESP", released, longBound);
        if (answered)
            m_findings.measure("release", milliseconds(released, *answered));
        else
            m_findings.fail("release", "the decoder does not come back");
    }

    void death() {
        freeDecoders("grant");
        Player player(m_stage);
        player.open(m_clip);
        player.play();
        if (!player.waitForPicture(5))
            return m_findings.fail("death", "it does not play: " + player.story());
        m_findings.beginMeasuring();
        m_main->say("crash");
        std::this_thread::sleep_for(Milliseconds(300));
        const auto seconds = player.release();
        if (seconds)
            m_findings.measure("death", *seconds * 1000);
        else
            m_findings.fail("death", "it did not come back in 10 s");
        m_main->startAgain(); // it frees what the other one has left behind
        m_main->isThere();
    }

    Stage& m_stage;
    Findings& m_findings;
    MainSystem* const m_main; ///< null: the set's own
    const Clip& m_clip;
};

} // namespace

void checkMainSystem(Stage& stage, Findings& findings) {
    if (stage.standalone) {
        for (unsigned int i = 0; i < limitCount; ++i)
            if (std::strcmp(limitTable[i].group, "mainsystem") == 0)
                findings.notJudged(limitTable[i].check, nobody);
        return;
    }
    MainSystemChecks(stage, findings, stage.mainSystem.get()).run();
}

} // namespace qualify
