#ifndef CHAOS_PLAYER_H
#define CHAOS_PLAYER_H

#include "clip.h"
#include "host/backend_library.h"
#include "uva/uva_client.h"
#include "uva/uva_event.h"
#include "walk.h"

#include <array>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace host {
class RequestLedger;
}

namespace chaos {

/// The browser's side of one element: it keeps the rules of the host interface, answers early, late
/// or never as its numbers say, and holds the backend to its own. What is not otherwise said
/// belongs to the host thread, which is the one that made it. It outlives its backend.
class Player final : public UVAClient {
public:
    struct Habits {
        const Clip* fed = nullptr;         ///< with these samples; null: `url` is played
        std::string url;                   ///< as file://...
        milliseconds latest{8};            ///< an answer takes so long at most
        unsigned int refuses = 0;          ///< of 16 requests for decoders
        unsigned int leavesUnanswered = 0; ///< ... further ones
    };

    Player(const host::BackendLibrary& library, const Habits& habits, Random random);
    ~Player() override; ///< releases

    void play();
    void pause();
    void seek(double seconds);
    void releaseResources(); ///< nothing but the release may follow
    /// A source goes and comes back, under another number, where playback is.
    void reattach(unsigned int index);
    /// Does what is due.
    void step();
    /// Steps until the predicate holds, within a bound; see eventually().
    template <typename Predicate>
    void until(milliseconds bound, const char* what, Predicate predicate) {
        eventually(bound, what, [&] {
            step();
            return predicate();
        });
    }
    void runFor(milliseconds time);
    void release();
    bool isReleased() const { return m_isReleased; }
    /// From then on a release is made inside the next event that "gst_run" delivers.
    void releaseInEvent() { m_releaseInEvent = true; }

    bool isFed() const { return m_habits.fed != nullptr; }
    /// Nothing that was asked for waits to be made.
    bool isSettled();
    int count(UVAEvent::Type type); ///< any thread
    /// Of the newest seek that was made; nothing while one is under way.
    std::optional<SeekCompletedExEvent::SeekOutcome> outcome();

    /// Of no request, from any thread while sources are not removed. Nothing before it was fed.
    void writeMore();

    void deliverEvent(UVAEvent* event) override;

private:
    using Time = std::chrono::steady_clock::time_point;
    struct Source {
        const Clip::Track* track;
        std::size_t next = 0;
        double start = 0;
        bool startDue = true;
        bool wasAsked = false;
    };
    struct Due {
        Time time;
        std::shared_ptr<UVAEvent> event;
        unsigned int seeks;        ///< that had been asked for when it came
        std::uint64_t request = 0; ///< of samples: its number
    };

    UVABackend::SourceDescription* describe(unsigned int id, const Clip::Track& track);
    void openFed();
    void openUrl();
    void answer(const Due& due);
    void completeSeek(const CancelDataRequestsAsyncEvent& event);
    void feed(const Due& due);
    void requireEachAnsweredOnce();
    void feedLocked(unsigned int id, Source& source, std::size_t count);
    unsigned int seeksAskedFor();

    const host::BackendLibrary& m_library;
    const Habits m_habits;
    const std::unique_ptr<host::RequestLedger> m_requests;
    unsigned int m_lastId = 0;

    std::mutex m_feedMutex; // guards what is fed, until it is written; taken before the other
    std::map<unsigned int, Source> m_sources;

    std::mutex m_mutex; // guards all below; a leaf
    Random m_random;
    std::vector<Due> m_due;
    std::vector<std::shared_ptr<UVAEvent>> m_unanswered; ///< which it owns as long as it lives
    const UVAEvent* m_question = nullptr;
    unsigned int m_seeks = 0; ///< asked for
    bool m_seekIsPending = false;
    double m_target = 0; ///< of the newest, seconds
    std::optional<SeekCompletedExEvent::SeekOutcome> m_outcome;
    std::map<UVAEvent::Type, int> m_counts;

    std::atomic<bool> m_writesUnasked{false};
    std::atomic<bool> m_releaseInEvent{false};
    std::atomic<bool> m_isReleased{false};
    std::atomic<bool> m_isOver{false}; ///< no event may come any more
    UVAMediaBackend* m_backend;        // last: it may deliver at once
};

/// A host thread's walk: up to two players at a time, which come, go and are told things.
void walkWithPlayers(const host::BackendLibrary& library, const std::vector<Player::Habits>& habits,
                     Random random, unsigned int steps);

} // namespace chaos

#endif
