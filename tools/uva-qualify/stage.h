#ifndef UVA_QUALIFY_STAGE_H
#define UVA_QUALIFY_STAGE_H

#include "findings.h"
#include "host/backend_library.h"
#include "host/clear_key.h"
#include "host/event_loop.h"
#include "media/clips.h"
#include "watch/watch.h"

#include <memory>
#include <string>

namespace qualify {

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
    bool standalone = false;   ///< nobody arbitrates the decoders
    std::string mainSystem;    ///< a program that can be commanded; empty: the set's own
    unsigned int elements = 8; ///< that the set can play at a time

    bool isShort() const { return profile == Profile::Short; }
};

} // namespace qualify

#endif
