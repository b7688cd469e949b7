#include "clip_player.h"
#include "groups/groups.h"
#include "groups/pictures.h"
#include "watch/planes.h"

#include <algorithm>
#include <cstdlib>
#include <future>
#include <iterator>

namespace qualify {

namespace {

constexpr std::size_t somePictures = 12;
constexpr Milliseconds captureBound{3000};

struct Aspect {
    const char* check;
    double Look::*value;
};
constexpr Aspect aspects[] = {{"brightness", &Look::brightness},
                              {"colours", &Look::colour},
                              {"noise", &Look::noise},
                              {"edges", &Look::edge}};

/// What the worst of all pictures looks like.
class Looks {
public:
    void add(const Look& look, const Clip& clip, const char* how) {
        ++m_count;
        const auto from = std::string(how) + " of " + clip.name;
        for (std::size_t i = 0; i < std::size(aspects); ++i)
            if (look.*aspects[i].value > m_worst[i]) {
                m_worst[i] = look.*aspects[i].value;
                m_notes[i] = from + ": " + look.worst;
            }
        if (look.turned && m_turned++ == 0)
            m_turnedNote = from;
        const int off = std::abs(look.width - clip.width) + std::abs(look.height - clip.height);
        if (off > m_off)
            m_offNote =
                from + ": " + std::to_string(look.width) + " by " + std::to_string(look.height);
        m_off = std::max(m_off, off);
    }

    void tell(Findings& findings, const std::vector<Evidence>& evidence) const {
        if (m_count == 0)
            return findings.fail("brightness", "no picture was seen");
        for (std::size_t i = 0; i < std::size(aspects); ++i)
            findings.measure(aspects[i].check, m_worst[i], m_notes[i], {}, evidence);
        findings.measure("orientation", m_turned, m_turnedNote, {}, evidence);
        findings.measure("size", m_off, m_offNote);
    }

private:
    int m_count = 0;
    double m_worst[std::size(aspects)] = {};
    std::string m_notes[std::size(aspects)];
    int m_turned = 0;
    std::string m_turnedNote;
    int m_off = 0; ///< pixels
    std::string m_offNote;
};

class PictureChecks {
public:
    PictureChecks(Stage& stage, Findings& findings) : m_stage(stage), m_findings(findings) {}

    void run() {
        look(m_stage.clips["short.mp4"], false, m_stage.clips["short.mp4"].pictures - 5U);
        std::size_t number = 0;
        for (const auto& clip : m_stage.clips.all()) {
            constexpr std::size_t shortShare = 4;
            if (clip.pictures > 0 && (number++ % shortShare == 0 || !m_stage.isShort()))
                look(clip, true, somePictures);
        }
        m_looks.tell(m_findings, m_evidence);
        if (m_captured == 0)
            m_findings.notJudged("captured", "this set captures no pictures: " + m_whyNot);
        else
            m_findings.measure("captured", m_uncaptured, m_whyNot);
    }

private:
    /// What does not play is another group's.
    void look(const Clip& clip, bool url, std::size_t count) {
        Player player(m_stage, {host::ResourcePolicy::Grant, url, 0});
        player.open(clip);
        player.play();
        waitUntil([&] {
            return player.watch().pictures().size() >= count || player.isFailed() ||
                   player.status().state == host::State::Ended;
        });
        player.pause();
        if (player.watch().pictures().empty())
            return;
        capture(player, clip);
        const auto& pictures = player.watch().pictures();
        for (const auto& picture : pictures)
            m_looks.add(picture.look, clip, "a picture");
        if (m_evidence.empty())
            m_evidence = evidenceOf(player.watch(), "a picture of " + clip.name);
    }

    void capture(Player& player, const Clip& clip) {
        auto answer = player.element().capture();
        const auto capture = answer.wait_for(captureBound) == std::future_status::ready
                                 ? answer.get()
                                 : host::MediaElement::Capture{{}, "no answer"};
        if (!capture.error.empty()) {
            ++m_uncaptured;
            m_whyNot = clip.name + ": " + capture.error;
            return;
        }
        ++m_captured;
        const auto planes = planesOf(capture.picture);
        const auto look = lookAt(planes);
        m_looks.add(look, clip, "a captured picture");
    }

    Stage& m_stage;
    Findings& m_findings;
    Looks m_looks;
    int m_captured = 0, m_uncaptured = 0;
    std::string m_whyNot;
    std::vector<Evidence> m_evidence;
};

} // namespace

void checkPicture(Stage& stage, Findings& findings) {
    PictureChecks(stage, findings).run();
}

} // namespace qualify
