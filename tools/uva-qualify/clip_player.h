#ifndef UVA_QUALIFY_CLIP_PLAYER_H
#define UVA_QUALIFY_CLIP_PLAYER_H

#include "host/media_element.h"
#include "stage.h"
#include "util/mutex.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qualify {

using Milliseconds = std::chrono::milliseconds;

constexpr Milliseconds longBound{10000}; ///< for what must come at all

/// Whether it became true in time. Looks every two milliseconds.
bool waitUntil(const std::function<bool()>& predicate, Milliseconds bound = longBound);

/// Seconds.
double secondsBetween(Clock::time_point from, Clock::time_point to);

/// A media element that plays test clips, its story, and what is seen of it. Bound to the group's
/// thread, but for the observer's operations.
class Player final : public host::Observer {
public:
    struct Setup {
        host::ResourcePolicy resources = host::ResourcePolicy::Grant;
        bool url = false; ///< it will play a URL, not samples
        std::uint64_t keySession = 0;
    };

    explicit Player(const Stage& stage) : Player(stage, Setup{}) {}
    Player(const Stage& stage, const Setup& setup);
    ~Player() override;

    host::MediaElement& element() { return *m_element; }
    Watch& watch() { return *m_watch; }

    /// By its URL, or its samples.
    void open(const Clip& clip);
    /// With streams that are attached here.
    void openStreams(std::vector<std::unique_ptr<host::SampleStream>> streams);
    Clock::time_point play();  ///< when it was asked for
    Clock::time_point pause(); ///< the same

    host::Status status() const;
    std::string story() const; ///< the states so far, for a note
    bool isFailed() const { return status().state == host::State::Failed; }
    unsigned int starvedTimes() const;
    unsigned int keysNeeded() const;

    /// Until the state, or failure.
    bool waitFor(host::State state, Milliseconds bound = longBound);
    bool waitForPosition(double seconds, Milliseconds bound = longBound);
    /// Until a picture with at least this number is on screen, newer than so many others.
    bool waitForPicture(int number, std::size_t behind = 0, Milliseconds bound = longBound);
    /// What became of it; nothing: no answer came.
    std::optional<host::SeekResult> seek(double seconds);
    std::optional<host::SeekResult> waitForSeek(std::uint64_t generation);

    /// Seconds that it took; nothing: it did not come back.
    std::optional<double> release(Milliseconds bound = longBound);

    void onRecord(const host::Record& record) override;
    void onStatus(const host::Status& status) override;
    void onSeek(const host::SeekResult& result) override;
    void onStarved(host::SourceId source) override;
    void onKeyNeeded(host::SourceId source, const host::KeyBytes& id, double time) override;

private:
    const Setup m_setup;
    const std::shared_ptr<host::ClearKey> m_keys;

    mutable Mutex m_mutex;
    host::Status m_status GUARDED_BY(m_mutex);
    std::string m_story GUARDED_BY(m_mutex);
    std::map<std::uint64_t, host::SeekResult> m_seeks GUARDED_BY(m_mutex);
    unsigned int m_starved GUARDED_BY(m_mutex) = 0;
    unsigned int m_keysNeeded GUARDED_BY(m_mutex) = 0;

    std::unique_ptr<host::MediaElement> m_element;
    std::unique_ptr<Watch> m_watch;
};

} // namespace qualify

#endif
