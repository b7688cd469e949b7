#ifndef UVA_REPLAY_MADE_CALL_H
#define UVA_REPLAY_MADE_CALL_H

#include "script.h"
#include "uva/uva_media_backend.h"

#include <string>

namespace replay {

/// What recorded numbers stand for in the process that plays the record.
class Objects {
public:
    virtual ~Objects() = default;
    virtual UVABackend::AVComponent* component(std::uint32_t number) = 0; ///< null: there is none
    /// One of the host's own; it lives as long as this object.
    virtual UVABackend::AVComponent* ownComponent(const record::Value& value) = 0;
    virtual std::string url(const std::string& recorded) const = 0;
};

/// Makes a recorded call of one of the backend's operations, but no answer: that needs what it
/// answers. Empty, or what the record lacks for
/// it: then no call is made.
std::string makeCall(const Call& call, UVAMediaBackend& backend, Objects& objects);

} // namespace replay

#endif
