#include "watch/watch.h"

namespace qualify {

Watch::~Watch() = default;
Observation::~Observation() = default;

} // namespace qualify
