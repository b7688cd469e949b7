#ifndef HOST_SEEK_H
#define HOST_SEEK_H

#include "host/observer.h"

#include <optional>

namespace host {

class Calls;
class Playback;
class ProgressWatch;

/// The seeks of a media element: one under way at a time, and one more that waits.
class Seek {
public:
    Seek(Calls& calls, Playback& playback, ProgressWatch& watch)
        : m_calls(calls), m_playback(playback), m_watch(watch) {}

    bool everBegan() const { return m_progress != Progress::Never; }
    bool isUnderWay() const { return m_progress == Progress::UnderWay; }
    bool isSettling() const { return m_progress == Progress::Settling; }
    double target() const { return m_target; } ///< of the last one that was begun; seconds

    /// To be begun, in place of one that waits.
    void request(double target);
    /// Begins the one that waits, if one does and it can be.
    bool begin();
    /// The backend's answer. The one that waits may be under way then.
    void finish(SeekOutcome outcome);
    /// Playback goes on from the target, or has ended there.
    void settle();
    void abortAll();

private:
    enum class Progress { Never, UnderWay, Settling, Settled };

    void answer(double target, SeekOutcome outcome);

    Calls& m_calls;
    Playback& m_playback;
    ProgressWatch& m_watch;
    Progress m_progress = Progress::Never; // of the last one
    double m_target = 0;
    bool m_fromEnd = false; // it began where playback had ended
    std::optional<double> m_waiting;
};

} // namespace host

#endif
