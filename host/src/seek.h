#ifndef HOST_SEEK_H
#define HOST_SEEK_H

#include "host/observer.h"

#include <cstdint>
#include <optional>

namespace host {

class Calls;
class Playback;
class ProgressWatch;

/// The seeks of a media element: one under way at a time, and one more that waits.
class Seek {
public:
    struct Request {
        std::uint64_t generation = 0; ///< 0: the element's own, which nobody waits for
        double target = 0;            ///< seconds
    };

    Seek(Calls& calls, Playback& playback, ProgressWatch& watch)
        : m_calls(calls), m_playback(playback), m_watch(watch) {}

    /// Where that target (seconds) leads in media of that length: into it, as far as that is known.
    static double placeOf(double target, double duration);

    bool everBegan() const { return m_progress != Progress::Never; }
    bool isUnderWay() const { return m_progress == Progress::UnderWay; }
    bool isSettling() const { return m_progress == Progress::Settling; }
    bool isIdle() const { return !isUnderWay() && !m_waiting; }
    double place() const { return m_place; } ///< where the last one that was begun leads; seconds
    /// Where playback is, or the newest seek is to take it.
    double destination() const;

    /// To be begun, in place of one that waits.
    void request(Request request);
    /// Begins the one that waits, if one does and it can be.
    bool begin();
    /// The backend's answer. The one that waits may be under way then.
    void finish(SeekOutcome outcome);
    /// Playback goes on from the target, or has ended there.
    void settle();
    void abortAll();

    void answer(Request request, SeekOutcome outcome);

private:
    enum class Progress { Never, UnderWay, Settling, Settled };

    double placeOf(const Request& request) const;
    bool isPossible() const;

    Calls& m_calls;
    Playback& m_playback;
    ProgressWatch& m_watch;
    Progress m_progress = Progress::Never; // of the last one
    Request m_current;                     // the last one that was begun
    double m_place = 0;                    // where it leads
    bool m_fromEnd = false;                // it began where playback had ended
    std::optional<Request> m_waiting;
};

} // namespace host

#endif
