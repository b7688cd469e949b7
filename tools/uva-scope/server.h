#ifndef UVA_SCOPE_SERVER_H
#define UVA_SCOPE_SERVER_H

#include "glib_ptr.h"
#include "live.h"
#include "players.h"

#include <libsoup/soup.h>
#include <map>
#include <string>

namespace scope {

/// The page and what it asks for, at a port of this host. All paths begin with a token.
///
///   GET  /TOKEN/               the page, and its parts
///   GET  /TOKEN/events         states, as they come (server-sent events)
///   GET  /TOKEN/state          the same once
///   GET  /TOKEN/bundle?player= a tar archive for a report
///   POST /TOKEN/graph          {"player","backend"}: {"svg","dot"}
///   POST /TOKEN/picture        {"player"}: PNG
///   POST /TOKEN/trace          {"player","unit","level"}: {"text"}
///   POST /TOKEN/output         {"player","on"}: {"text"}; whether traces go to standard output
///   POST /TOKEN/threshold      {"player","levels"}: {"text"}
///
/// A request for another host's name, from another page, without the token or with another method
/// is refused. Bound to the thread of the default main context.
class Server {
public:
    /// Throws std::runtime_error when the port cannot be had.
    Server(Players& players, Live& live, int port);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// With the token.
    std::string address() const;

private:
    struct Route;
    using Query = std::map<std::string, std::string>;

    static void onEarly(SoupServer* server, SoupServerMessage* message, const char* path,
                        GHashTable* query, gpointer self);
    static void onRequest(SoupServer* server, SoupServerMessage* message, const char* path,
                          GHashTable* query, gpointer self);
    /// 0: it may go on; else the status of the refusal.
    guint refusal(SoupServerMessage* message, const char* path) const;
    void answer(SoupServerMessage* message, const std::string& path, const Query& query);
    const Route* routeOf(const std::string& path) const;

    void giveEvents(SoupServerMessage* message, const Query& query, const Json& wish);
    void giveState(SoupServerMessage* message, const Query& query, const Json& wish);
    void giveBundle(SoupServerMessage* message, const Query& query, const Json& wish);
    void giveGraph(SoupServerMessage* message, const Query& query, const Json& wish);
    void givePicture(SoupServerMessage* message, const Query& query, const Json& wish);
    void setTrace(SoupServerMessage* message, const Query& query, const Json& wish);
    void setOutput(SoupServerMessage* message, const Query& query, const Json& wish);
    void setThreshold(SoupServerMessage* message, const Query& query, const Json& wish);
    void command(SoupServerMessage* message, const Json& wish, Json order);

    static const Route routes[];

    Players& m_players;
    Live& m_live;
    const std::string m_token;
    ObjectPtr<SoupServer> m_server;
};

} // namespace scope

#endif
