#ifndef HOST_OBSERVER_H
#define HOST_OBSERVER_H

#include "host/record.h"
#include "host/status.h"

namespace host {

enum class SeekOutcome {
    Succeeded,
    Failed,
    Aborted,  ///< playback ended or failed first
    Replaced, ///< a newer request came before this one was begun
};

/// "succeeded", "failed", ...
const char* name(SeekOutcome outcome);

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
    virtual void onSeek(double target, SeekOutcome outcome) = 0;
};

} // namespace host

#endif
