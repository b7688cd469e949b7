#ifndef UVA_QUALIFY_STAGE_H
#define UVA_QUALIFY_STAGE_H

#include "findings.h"
#include "host/backend_library.h"
#include "host/clear_key.h"
#include "host/event_loop.h"
#include "media/clips.h"
#include "watch/watch.h"

#include <memory>

namespace qualify {

class MainSystem;

/// How much of everything is tried.
enum class Profile { Short, Full };

/// What the groups of a run stand on.
struct Stage {
    std::shared_ptr<const host::BackendLibrary> library;
    std::shared_ptr<host::EventLoop> loop;
    std::shared_ptr<Observation> observation;
    std::shared_ptr<host::ClearKey> keys; ///< on offer to the backends
    Clips clips;
    Profile profile = Profile::Full;
    bool standalone = false;                ///< nobody arbitrates the decoders
    std::shared_ptr<MainSystem> mainSystem; ///< null: the set's own, which is not commanded
    unsigned int elements = 8;              ///< that the set can play at a time

    bool isShort() const { return profile == Profile::Short; }
    /// How much of a clip of six seconds is played where it need not be all; whole seconds.
    int length() const { return isShort() ? 3 : 6; }
};

} // namespace qualify

#endif
