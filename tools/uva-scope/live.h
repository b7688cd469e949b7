#ifndef UVA_SCOPE_LIVE_H
#define UVA_SCOPE_LIVE_H

#include "glib_ptr.h"
#include "players.h"

#include <cstdint>
#include <libsoup/soup.h>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace scope {

/// What is known of all players, as the page gets it: the state of each, and of its time line and
/// lines what is new since the last call.
class Snapshot {
public:
    /// For who begins, with what is kept.
    Json take(const Players& players);

private:
    struct Seen {
        std::uint64_t records = 0;
        std::uint64_t lines = 0;
    };
    std::map<std::string, Seen> m_seen; ///< by player
};

/// Pages that are kept up to date, as server-sent events. One that does not keep pace gets the
/// latest, not all in between. Bound to the thread of the default main context.
class Live {
public:
    explicit Live(const Players& players) : m_players(players) {}
    Live(const Live&) = delete;
    Live& operator=(const Live&) = delete;

    /// The answer to this request never ends. False: there are too many pages already.
    bool add(SoupServerMessage* message);
    /// Something is new.
    void changed();

private:
    struct Page {
        Live* live;
        SoupServerMessage* message; ///< the server's, until "finished"
        Snapshot snapshot;
        bool isWriting = false; ///< what was sent last is not through yet
        bool isBehind = false;  ///< and there is something newer
    };
    void send(Page& page);
    static void onWritten(SoupServerMessage* message, gpointer page);
    static void onFinished(SoupServerMessage* message, gpointer page);

    const Players& m_players;
    std::vector<std::unique_ptr<Page>> m_pages;
};

} // namespace scope

#endif
