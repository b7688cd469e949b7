#include "clip_player.h"
#include "groups/groups.h"
#include "groups/pictures.h"
#include "tracks.h"

#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <thread>

namespace qualify {

namespace {

using host::KeyPair;
using Scheme = host::Protection::Scheme;

constexpr double rotation = 0.5; // seconds that a key lasts
constexpr std::size_t keysOfASession = 16;
constexpr Milliseconds looked{700}; // for what must not come

/// Seconds of the clip.
double tried(const Stage& stage) {
    return stage.isShort() ? 1.2 : 1.6;
}

/// The same id under every session, and a key of its own.
KeyPair keyOf(std::uint64_t session, std::size_t index) {
    KeyPair pair;
    pair.id.fill(static_cast<std::uint8_t>(0x10 + index));
    pair.key.fill(static_cast<std::uint8_t>(0xa0 + index));
    pair.key[0] = static_cast<std::uint8_t>(session);
    return pair;
}

/// The clip's tracks, each frame encrypted with the key that its time asks for.
class ProtectedTracks {
public:
    using Choice = std::function<std::size_t(double seconds)>;

    ProtectedTracks(const Clip& clip, std::uint64_t session, std::size_t keys, Choice choice) {
        std::vector<std::vector<Track>> versions;
        for (std::size_t i = 0; i < keys; ++i)
            versions.push_back(loadTracks(clip, [&](auto stream) {
                return host::protect(std::move(stream), i % 2 == 0 ? Scheme::Cenc : Scheme::Cbcs,
                                     keyOf(session, i));
            }));
        tracks = versions.front();
        for (std::size_t t = 0; t < tracks.size(); ++t)
            for (std::size_t f = 0; f < tracks[t].frames.size(); ++f) {
                auto& frame = tracks[t].frames[f];
                const auto key = choice(frame.sample.pts);
                frame = versions[std::min(key, keys - 1)][t].frames[f];
            }
    }

    std::vector<Track> tracks;
};

/// An element that plays protected tracks, all of which are there.
class ProtectedPlayer {
public:
    ProtectedPlayer(Stage& stage, const std::vector<Track>& tracks, std::uint64_t session)
        : m_stage(stage), m_buffers(tracks),
          m_player(stage, {host::ResourcePolicy::Grant, false, session}) {
        m_buffers.append(tracks, 0, stage.clips["short.mp4"].seconds + 1);
        m_buffers.end();
        m_player.openStreams(m_buffers.streams());
        m_player.play();
    }

    Player& player() { return m_player; }

    /// Of the pictures that are tried, those that are not shown.
    int missing() {
        return unseen(m_player, m_stage, numberAt(m_stage.clips["short.mp4"], tried(m_stage)));
    }
    /// Pictures that can be read, from a number on.
    int readable(int from) {
        const auto& pictures = m_player.watch().pictures();
        return static_cast<int>(
            std::count_if(pictures.begin(), pictures.end(), [from](const auto& picture) {
                return picture.mark && picture.mark->number >= from;
            }));
    }
    std::vector<Evidence> evidence(const std::string& caption) {
        return evidenceOf(m_player.watch(), caption);
    }

private:
    Stage& m_stage;
    Buffers m_buffers;
    Player m_player;
};

class KeyChecks {
public:
    KeyChecks(Stage& stage, Findings& findings)
        : m_stage(stage), m_findings(findings), m_clip(stage.clips["short.mp4"]),
          m_one(m_clip, oneSession, 1, [](double) { return 0; }),
          m_rotated(m_clip, oneSession, 6, [](double seconds) {
              return static_cast<std::size_t>(std::max(0.0, seconds) / rotation);
          }) {}

    void run() {
        const std::pair<const char*, void (KeyChecks::*)()> checks[] = {
            {"in time", &KeyChecks::inTime},  {"late", &KeyChecks::late},
            {"wrong", &KeyChecks::wrong},     {"revoked", &KeyChecks::revoked},
            {"rotated", &KeyChecks::rotated}, {"sessions", &KeyChecks::sessions}};
        for (const auto& [name, check] : checks) {
            m_name = name;
            m_findings.beginMeasuring();
            (this->*check)();
            m_stage.keys->removeKeys(oneSession);
        }
        const auto open = m_stage.keys->created() - m_stage.keys->released();
        m_findings.measure("given back", open, "of " + std::to_string(m_stage.keys->created()));
    }

private:
    static constexpr std::uint64_t oneSession = 100;

    void measure(ProtectedPlayer& played, int value) {
        m_findings.measure(m_name, value, value == 0 ? "" : played.player().story(), {},
                           played.evidence("the last picture"));
    }

    void inTime() {
        m_stage.keys->addKey(keyOf(oneSession, 0), oneSession);
        ProtectedPlayer played(m_stage, m_one.tracks, oneSession);
        measure(played, played.missing());
    }

    void late() {
        ProtectedPlayer played(m_stage, m_one.tracks, oneSession);
        if (!waitUntil([&] { return played.player().keysNeeded() > 0; }))
            return m_findings.fail(m_name, "no key is asked for: " + played.player().story());
        std::this_thread::sleep_for(Milliseconds(500));
        if (const int shown = played.readable(0); shown > 0)
            return m_findings.fail(m_name, std::to_string(shown) + " pictures before their key");
        m_stage.keys->addKey(keyOf(oneSession, 0), oneSession);
        played.player().element().resumeFeeding();
        measure(played, played.missing());
    }

    void wrong() {
        auto pair = keyOf(oneSession, 0);
        pair.key[15] = static_cast<std::uint8_t>(~pair.key[15]);
        m_stage.keys->addKey(pair, oneSession);
        ProtectedPlayer played(m_stage, m_one.tracks, oneSession);
        std::this_thread::sleep_for(looked);
        measure(played, played.readable(0));
    }

    /// The second key was there, and is not any more.
    void revoked() {
        for (const std::size_t index : {0U, 1U})
            m_stage.keys->addKey(keyOf(oneSession, index), oneSession);
        m_stage.keys->removeKey(keyOf(oneSession, 1).id, oneSession);
        ProtectedPlayer played(m_stage, m_rotated.tracks, oneSession);
        if (!played.player().waitForPicture(2))
            return m_findings.fail(m_name, "what comes before it does not play: " +
                                               played.player().story());
        std::this_thread::sleep_for(looked);
        measure(played, played.readable(numberAt(m_clip, rotation) + 1));
    }

    void rotated() {
        for (std::size_t index = 0; index < 6; ++index)
            m_stage.keys->addKey(keyOf(oneSession, index), oneSession);
        ProtectedPlayer played(m_stage, m_rotated.tracks, oneSession);
        measure(played, played.missing());
    }

    /// The keys of all are there, and some play at a time. All name their keys alike, and each has
    /// others.
    void sessions() {
        constexpr std::uint64_t together = 4;
        const std::uint64_t count = m_stage.isShort() ? 4 : 16;
        for (std::uint64_t session = 1; session <= count; ++session)
            for (std::size_t index = 0; index < keysOfASession; ++index)
                m_stage.keys->addKey(keyOf(session, index), session);
        int worst = 0;
        for (std::uint64_t first = 1; first <= count; first += together)
            worst = std::max(worst, playSessions(first, first + together));
        for (std::uint64_t session = 1; session <= count; ++session)
            m_stage.keys->removeKeys(session);
        m_findings.measure(m_name, worst, "of " + std::to_string(count) + " sessions");
    }

    int playSessions(std::uint64_t from, std::uint64_t to) {
        std::vector<std::unique_ptr<ProtectedPlayer>> players;
        for (auto session = from; session < to; ++session) {
            const double lasts = tried(m_stage) / keysOfASession; // each key
            const ProtectedTracks media(m_clip, session, keysOfASession, [lasts](double seconds) {
                return static_cast<std::size_t>(std::max(0.0, seconds) / lasts) % keysOfASession;
            });
            players.push_back(std::make_unique<ProtectedPlayer>(m_stage, media.tracks, session));
        }
        int worst = 0;
        for (auto& played : players)
            worst = std::max(worst, played->missing());
        return worst;
    }

    Stage& m_stage;
    Findings& m_findings;
    const Clip& m_clip;
    const ProtectedTracks m_one, m_rotated;
    std::string m_name;
};

} // namespace

void checkKeys(Stage& stage, Findings& findings) {
    KeyChecks(stage, findings).run();
}

} // namespace qualify
