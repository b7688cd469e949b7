#ifndef UVA_SCOPE_WHY_H
#define UVA_SCOPE_WHY_H

#include "json.h"

#include <optional>
#include <string>

namespace scope {

/// Who keeps a playback from moving. Nobody: it moves, or is not to.
enum class Who { Nobody, Client, MainSystem, Data, Key, Decoder, Network, Unknown };

/// "client", "main system", ...; empty for nobody.
const char* nameOf(Who who);

/// Why nothing is moving.
struct Why {
    Who who = Who::Nobody;
    double seconds = 0; ///< for how long
    std::string sentence;
};

/// What is kept of a backend's states to compare the next one with. Times are seconds of one clock.
struct Standing {
    std::optional<double> position; ///< seconds
    double movedAt = 0;             ///< when the position changed last
    std::optional<double> bytes;    ///< read from the URL
    double bytesAt = 0;             ///< when they changed last
    double notDecrypted = 0;        ///< samples of all sources, ever
    std::optional<double> failedAt; ///< when they became more
};

/// What there is to look at: a backend as m_state describes it, the link that it shares with others
/// of its process, and the main system as that one describes itself. Each may be anything.
struct Seen {
    const Json& backend;
    const Json& link;
    const Json& mainSystem;
};

/// The standing with one state more, taken at `time`. Without an earlier one all has just moved.
Standing follow(const std::optional<Standing>& before, const Json& backend, double time);

/// Says who is waited for at `time`, with the standing that has followed this state.
Why explain(const Standing& standing, const Seen& seen, double time);

} // namespace scope

#endif
