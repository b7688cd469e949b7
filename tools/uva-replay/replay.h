#ifndef UVA_REPLAY_REPLAY_H
#define UVA_REPLAY_REPLAY_H

#include "compare.h"
#include "host/clear_key.h"
#include "player.h"
#include "record.h"

#include <string>
#include <vector>

namespace replay {

struct Settings {
    std::string library; ///< empty: the default
    Pace pace;
    Bounds bounds;
    std::vector<host::KeyPair> keys;
    bool quiet = false; ///< what library and player say is not wanted
};

struct Outcome {
    std::vector<Difference> differences; ///< in the order of the record's time
    std::string error;                   ///< why it could not be played at all; empty: it was
};

/// Plays a record in a process of its own, which a fault of the library may end, and compares what
/// came of it. Blocks until it is over.
Outcome replay(const record::Record& record, const Settings& settings);

} // namespace replay

#endif
