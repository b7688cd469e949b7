#include "watch/watch.h"

#include <utility>

namespace qualify {

Watch::~Watch() = default;
Observation::~Observation() = default;

std::optional<std::vector<HeardPulse>> Watch::pulses() {
    auto heard = sound();
    return heard ? std::optional(std::move(heard->pulses)) : std::nullopt;
}

} // namespace qualify
