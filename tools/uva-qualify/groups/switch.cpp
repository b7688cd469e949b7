#include "clip_player.h"
#include "groups/groups.h"
#include "groups/pictures.h"
#include "tracks.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace qualify {

namespace {

using Kind = host::StreamInfo::Kind;

/// From which clip the video comes from a time on, seconds.
struct Piece {
    const char* clip;
    double from;
};

class SwitchChecks {
public:
    SwitchChecks(Stage& stage, Findings& findings)
        : m_stage(stage), m_findings(findings), m_main(stage.clips["main.mp4"]),
          m_audio(trackOf(loadTracks(m_main), Kind::Audio)) {}

    void run() {
        const double third = m_stage.length() / 3;
        play("rendition", {{"low.mp4", 0}, {"high.mp4", third}, {"low.mp4", 2 * third}});
        play("codec", {{"low.mp4", 0}, {"vp9.webm", third}, {"low.mp4", 2 * third}});
        if (m_hears)
            m_findings.measure("sound", m_unheard);
        else
            m_findings.notJudged("sound", "sound cannot be observed on this set");
    }

private:
    /// The video of the pieces, one behind the other, beside the sound of one clip.
    void play(const std::string& check, const std::vector<Piece>& pieces) {
        m_findings.beginMeasuring();
        std::vector<Track> video;
        for (const auto& piece : pieces)
            video.push_back(trackOf(loadTracks(m_stage.clips[piece.clip]), Kind::Video));
        Buffers buffers({m_audio, video.front()});
        buffers.append(0, m_audio.part(0, m_stage.length()));
        constexpr std::uint64_t numbers = 10000; // of the frames of a piece
        for (std::size_t i = 0; i < pieces.size(); ++i) {
            const double to = i + 1 < pieces.size() ? pieces[i + 1].from : m_stage.length();
            buffers.append(1, video[i].numberedFrom(i * numbers).part(pieces[i].from, to));
        }
        buffers.end();
        Player player(m_stage);
        player.openStreams(buffers.streams());
        player.play();
        const auto bound = Milliseconds(m_stage.length() * 1000) + longBound;
        if (!player.waitFor(host::State::Ended, bound))
            return m_findings.fail(check, "it does not play to the end: " + player.story(),
                                   evidenceOf(player.watch(), "the last picture that was seen"));
        judge(check, player, pieces);
    }

    void judge(const std::string& check, Player& player, const std::vector<Piece>& pieces) {
        const auto& pictures = player.watch().pictures();
        const auto sequence = sequenceOf(pictures);
        if (m_stage.observation->isExact()) {
            const int lost = m_stage.length() * m_main.rate - 1 - sequence.last +
                             std::max(0, sequence.first) + sequence.missing;
            m_findings.measure(check, lost + sequence.faults() + strangers(pictures, pieces),
                               sequence.oddities, {},
                               evidenceOf(player.watch(), "the last picture"));
        } else {
            m_findings.notJudged(check, "captured pictures are only some of those that are shown");
        }
        m_findings.measure(check + " gap",
                           m_stage.observation->beyondLateness(longestGap(pictures)), "",
                           {intervalsOf(pictures, "from picture to picture")});
        hear(player);
    }

    /// Pictures of another clip than the one whose turn it is.
    int strangers(const std::vector<SeenPicture>& pictures,
                  const std::vector<Piece>& pieces) const {
        int count = 0;
        for (const auto& picture : pictures) {
            const auto* turn = &pieces.front();
            for (const auto& piece : pieces)
                if (picture.mark && picture.mark->time >= std::lround(piece.from * 1000))
                    turn = &piece;
            const bool isStrange =
                picture.mark && picture.mark->clip != m_stage.clips[turn->clip].mark;
            count += isStrange ? 1 : 0;
        }
        return count;
    }

    void hear(Player& player) {
        const auto pulses = player.watch().pulses();
        m_hears = pulses.has_value();
        if (m_hears)
            m_unheard += unheard(*pulses, m_stage.length());
    }

    Stage& m_stage;
    Findings& m_findings;
    const Clip& m_main;
    const Track m_audio;
    bool m_hears = false;
    int m_unheard = 0;
};

} // namespace

void checkSwitch(Stage& stage, Findings& findings) {
    SwitchChecks(stage, findings).run();
}

} // namespace qualify
