#ifndef UVA_SCOPE_PLAYERS_H
#define UVA_SCOPE_PLAYERS_H

#include "options.h"
#include "player.h"
#include "probe_process.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace scope {

/// All players that can be looked at, each with a probe. New ones are looked for once a second.
/// Bound to the thread of the default main context.
class Players {
public:
    /// `changed` is called after each message of a probe.
    Players(const Options& options, std::function<void()> changed);
    Players(const Players&) = delete;
    Players& operator=(const Players&) = delete;

    /// Calls with each, in the order in which they were found.
    template <typename Use>
    void forEach(Use use) const {
        for (const auto& place : m_places)
            use(place->player);
    }
    /// Where players are looked for, for a reader.
    std::string where() const;
    /// Null: there is none of that id.
    const Player* find(const std::string& id) const;
    /// Gives a player's probe an order; see ProbeProcess.
    void order(const std::string& id, Json order, ProbeProcess::Answered answered);

private:
    /// Where a player is, or may come.
    struct Place {
        Place(std::string placeId, std::string placeBox, std::string placeSocket);

        const std::string box; ///< empty: here
        const std::string socket;
        Player player;
        std::unique_ptr<ProbeProcess> probe; ///< null: not now
    };

    void search();
    void look(const std::string& box, const std::string& socket);
    void begin(Place& place);
    void forgetOldest();

    const Options m_options;
    const std::function<void()> m_changed;
    std::vector<std::unique_ptr<Place>> m_places;
    std::optional<Timer> m_timer;
};

/// Seconds of CLOCK_MONOTONIC.
double now();

} // namespace scope

#endif
