#ifndef HOST_STATUS_H
#define HOST_STATUS_H

#include "host/record.h"
#include "host/sample_stream.h"
#include "uva/uva_backend.h"

#include <string>
#include <vector>

namespace host {

enum class State {
    Idle,      ///< no backend yet
    Opening,   ///< the backend has the media
    Buffering, ///< waiting for data: at the start, after a seek, when the network is slow
    Playing,   ///< the position moves
    Paused,
    Seeking, ///< until the backend reports the seek's outcome
    Ended,
    Failed,
};

/// "idle", "opening", ...
const char* name(State state);

/// An audio or video track, as the backend announced it.
struct Component {
    int type = 0; ///< UVABackend::AVComponent::Type
    std::string encoding;
    std::string language;
    std::string label;
};

/// What the backend holds of a media source that the host feeds.
struct BufferedSource {
    SourceId id = 0;
    StreamInfo::Kind kind = StreamInfo::Kind::Video;
    std::vector<UVABackend::TimeRange> ranges; ///< seconds
};

/// What a front end shows of a media element. A plain value.
struct Status {
    Clock::time_point time; ///< when this was so
    State state = State::Idle;
    std::string reason;            ///< Failed only: one line for the user
    double position = 0;           ///< seconds
    double duration = 0;           ///< seconds; 0: unknown
    int width = -1, height = -1;   ///< pixels; -1: unknown
    double pixelAspectRatio = 1.0; ///< width of a pixel over its height
    std::vector<Component> components;
    std::vector<BufferedSource> sources; ///< empty: a URL is played
};

} // namespace host

#endif
