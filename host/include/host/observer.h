#ifndef HOST_OBSERVER_H
#define HOST_OBSERVER_H

#include "host/record.h"
#include "host/status.h"

#include <cstdint>

namespace host {

enum class SeekOutcome {
    Succeeded,
    Failed,
    Aborted,  ///< playback ended or failed first
    Replaced, ///< a newer request came before this one was begun
};

/// "succeeded", "failed", ...
const char* name(SeekOutcome outcome);

/// What became of a MediaElement::seek().
struct SeekResult {
    std::uint64_t generation = 0; ///< what it had answered
    double target = 0;            ///< seconds, as it was given
    SeekOutcome outcome = SeekOutcome::Succeeded;
    /// Where playback is now, seconds: in the media, as the target need not be.
    double position = 0;
};

/// Where a media element reports. Called on the event loop's thread, in the order of what happened;
/// may call the element back, except for its release. Must not block.
class Observer {
public:
    virtual ~Observer();

    /// Every event of the backend and every operation made on it, but for the queries of position
    /// and duration that onStatus() stands for.
    virtual void onRecord(const Record& record) = 0;

    /// Something in the status changed.
    virtual void onStatus(const Status& status) = 0;

    /// The one answer to each MediaElement::seek().
    virtual void onSeek(const SeekResult& result) = 0;

    /// All has been played. The status tells of it first.
    virtual void onEnd(double position);

    ///@{
    /// Playback is held, or will be at once, because this source has nothing to go on with; ... it
    /// has again. By turns, of sources that the host feeds.
    virtual void onStarved(SourceId source);
    virtual void onFilled(SourceId source);
    ///@}

    /// Samples of this source, from this time on (seconds), are held back until the key with this
    /// id is there and MediaElement::resumeFeeding() was called. Once a key, until something else
    /// was fed.
    virtual void onKeyNeeded(SourceId source, const KeyBytes& id, double time);
};

} // namespace host

#endif
