#include "server.h"

#include "access.h"
#include "bundle.h"
#include "drawing.h"

#include <algorithm>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace scope {

namespace {

constexpr const char* resources = "/uva-scope/";
constexpr const char* policy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob:; "
    "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
constexpr goffset mostWish = 4096; // bytes

/// What is sent with everything.
constexpr struct {
    const char* name;
    const char* value;
} headers[] = {
    {"Content-Security-Policy", policy}, {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"}, // the address has the token
    {"Cache-Control", "no-store"},       {"Cross-Origin-Resource-Policy", "same-origin"},
};

/// A part of the page, and how it is called over HTTP.
constexpr struct {
    std::string_view ending;
    const char* type;
} types[] = {
    {".html", "text/html; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".svg", "image/svg+xml"},
};

const char* typeOf(std::string_view name) {
    for (const auto& row : types)
        if (name.size() > row.ending.size() &&
            name.substr(name.size() - row.ending.size()) == row.ending)
            return row.type;
    return "application/octet-stream";
}

void reply(SoupServerMessage* message, guint status, const char* type, const std::string& body) {
    soup_server_message_set_status(message, status, nullptr);
    soup_server_message_set_response(message, type, SOUP_MEMORY_COPY, body.data(), body.size());
}

void replyJson(SoupServerMessage* message, guint status, const Json& body) {
    reply(message, status, "application/json", dump(body));
}

/// What a player does not do is its answer, not the server's.
void replyRefused(SoupServerMessage* message, const std::string& text) {
    replyJson(message, SOUP_STATUS_OK,
              {{"error", text.empty() ? "the player has refused, without a word" : text}});
}

void replyError(SoupServerMessage* message, guint status, const std::string& text) {
    replyJson(message, status, {{"error", text}});
}

/// A request whose answer comes later. Its client may go meanwhile.
class Pending {
public:
    explicit Pending(SoupServerMessage* message)
        : m_message(static_cast<SoupServerMessage*>(g_object_ref(message))) {
        soup_server_message_pause(message);
    }
    ~Pending() { soup_server_message_unpause(m_message.get()); }
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;

    SoupServerMessage* message() const { return m_message.get(); }

private:
    const ObjectPtr<SoupServerMessage> m_message;
};

bool isPlain(const std::string& text, std::string_view others) {
    return !text.empty() && text.size() <= 200 &&
           std::all_of(text.begin(), text.end(), [others](char each) {
               return (each >= 'a' && each <= 'z') || (each >= 'A' && each <= 'Z') ||
                      (each >= '0' && each <= '9') || others.find(each) != std::string_view::npos;
           });
}

std::string stamp() {
    const std::time_t time = std::time(nullptr);
    std::tm parts{};
    localtime_r(&time, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &parts);
    return text;
}

} // namespace

struct Server::Route {
    const char* method;
    const char* path; ///< behind the token
    void (Server::*give)(SoupServerMessage*, const Query&, const Json& wish);
};

const Server::Route Server::routes[] = {
    {"GET", "events", &Server::giveEvents},    {"GET", "state", &Server::giveState},
    {"GET", "bundle", &Server::giveBundle},    {"POST", "graph", &Server::giveGraph},
    {"POST", "picture", &Server::givePicture}, {"POST", "trace", &Server::setTrace},
    {"POST", "output", &Server::setOutput},    {"POST", "threshold", &Server::setThreshold},
};

Server::Server(Players& players, Live& live, int port)
    : m_players(players), m_live(live), m_token(newToken()),
      m_server(soup_server_new("server-header", "uva-scope", nullptr)) {
    soup_server_add_early_handler(m_server.get(), nullptr, onEarly, this, nullptr);
    soup_server_add_handler(m_server.get(), nullptr, onRequest, this, nullptr);
    GError* failure = nullptr;
    soup_server_listen_local(m_server.get(), static_cast<guint>(port), SOUP_SERVER_LISTEN_IPV4_ONLY,
                             &failure);
    if (const ErrorPtr error(failure); error)
        throw std::runtime_error("cannot serve at port " + std::to_string(port) + ": " +
                                 error->message + "; choose another with --port, or none");
}

Server::~Server() {
    soup_server_disconnect(m_server.get());
}

std::string Server::address() const {
    GSList* const uris = soup_server_get_uris(m_server.get());
    const int port = uris != nullptr ? g_uri_get_port(static_cast<GUri*>(uris->data)) : 0;
    g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
    return "http://127.0.0.1:" + std::to_string(port) + "/" + m_token + "/";
}

const Server::Route* Server::routeOf(const std::string& path) const {
    const auto rest = path.substr(std::min(path.size(), m_token.size() + 2));
    const auto* const route = std::find_if(std::begin(routes), std::end(routes),
                                           [&](const Route& each) { return rest == each.path; });
    return route == std::end(routes) ? nullptr : route;
}

guint Server::refusal(SoupServerMessage* message, const char* path) const {
    auto* const request = soup_server_message_get_request_headers(message);
    const char* const host = soup_message_headers_get_one(request, "Host");
    const char* const origin = soup_message_headers_get_one(request, "Origin");
    if (host == nullptr || !isThisHost(host) || !isOwnOrigin(origin ? origin : "", host))
        return SOUP_STATUS_FORBIDDEN;
    const std::string_view asked(path);
    if (asked.size() < m_token.size() + 2 || asked[m_token.size() + 1] != '/' ||
        !isSameSecret(asked.substr(1, m_token.size()), m_token))
        return SOUP_STATUS_FORBIDDEN;
    const auto* const route = routeOf(path);
    if (std::string_view(soup_server_message_get_method(message)) !=
        (route ? route->method : "GET"))
        return SOUP_STATUS_METHOD_NOT_ALLOWED;
    if (soup_message_headers_get_encoding(request) == SOUP_ENCODING_CHUNKED ||
        soup_message_headers_get_content_length(request) > mostWish)
        return SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE;
    return 0;
}

/// Before the body of a request is read.
void Server::onEarly(SoupServer* /*server*/, SoupServerMessage* message, const char* path,
                     GHashTable* /*query*/, gpointer self) {
    auto* const response = soup_server_message_get_response_headers(message);
    for (const auto& header : headers)
        soup_message_headers_replace(response, header.name, header.value);
    const guint status = static_cast<Server*>(self)->refusal(message, path);
    if (status != 0) // however much comes, it is not kept
        soup_message_body_set_accumulate(soup_server_message_get_request_body(message), FALSE);
    if (status == SOUP_STATUS_FORBIDDEN)
        replyError(message, status, "open the address that uva-scope has printed, as it is");
    else if (status != 0)
        replyError(message, status, "there is no such request");
}

void Server::onRequest(SoupServer* /*server*/, SoupServerMessage* message, const char* path,
                       GHashTable* query, gpointer self) {
    Query parts;
    if (query != nullptr) {
        GHashTableIter each;
        gpointer name = nullptr;
        gpointer value = nullptr;
        g_hash_table_iter_init(&each, query);
        while (g_hash_table_iter_next(&each, &name, &value))
            parts[static_cast<const char*>(name)] = static_cast<const char*>(value);
    }
    static_cast<Server*>(self)->answer(message, path, parts);
}

void Server::answer(SoupServerMessage* message, const std::string& path, const Query& query) {
    if (const auto* const route = routeOf(path)) {
        auto* const body = soup_server_message_get_request_body(message);
        const BytesPtr bytes(soup_message_body_flatten(body));
        return (this->*route->give)(message, query,
                                    parseForeign(textOf(bytes.get())).value_or(Json()));
    }
    auto name = path.substr(m_token.size() + 2);
    name = name.empty() ? "index.html" : name;
    const BytesPtr part(
        g_resources_lookup_data((resources + name).c_str(), G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr));
    if (part == nullptr)
        return replyError(message, SOUP_STATUS_NOT_FOUND, "there is no such page");
    reply(message, SOUP_STATUS_OK, typeOf(name), textOf(part.get()));
}

// ---- what is asked for

void Server::giveEvents(SoupServerMessage* message, const Query&, const Json&) {
    if (!m_live.add(message))
        replyError(message, SOUP_STATUS_SERVICE_UNAVAILABLE,
                   "too many pages are open: close some of them");
}

void Server::giveState(SoupServerMessage* message, const Query&, const Json&) {
    replyJson(message, SOUP_STATUS_OK, Snapshot().take(m_players));
}

/// The graph is asked for now; a player that gives none has all else in its bundle.
void Server::giveBundle(SoupServerMessage* message, const Query& query, const Json&) {
    const auto found = query.find("player");
    const auto id = found == query.end() ? std::string() : found->second;
    if (m_players.find(id) == nullptr)
        return replyError(message, SOUP_STATUS_NOT_FOUND, "there is no such player");
    const auto pending = std::make_shared<Pending>(message);
    const auto pack = [pending](Files files) {
        const auto folder = "uva-scope-" + stamp();
        soup_message_headers_replace(soup_server_message_get_response_headers(pending->message()),
                                     "Content-Disposition",
                                     ("attachment; filename=\"" + folder + ".tar\"").c_str());
        reply(pending->message(), SOUP_STATUS_OK, "application/x-tar", makeTar(folder, files));
    };
    m_players.order(id, {{"do", "graph"}},
                    [this, id, pack](bool ok, const std::string& text, const std::string& dot) {
                        const auto* const player = m_players.find(id);
                        auto files = player ? filesOf(*player, now()) : Files();
                        if (!ok) {
                            files.emplace_back("graph.txt", text + "\n");
                            return pack(std::move(files));
                        }
                        files.emplace_back("graph.dot", dot);
                        draw(dot, [pack, files](const std::string& svg, const std::string& error) {
                            auto all = files;
                            all.emplace_back(svg.empty() ? "graph.txt" : "graph.svg",
                                             svg.empty() ? error + "\n" : svg);
                            pack(std::move(all));
                        });
                    });
}

void Server::giveGraph(SoupServerMessage* message, const Query&, const Json& wish) {
    const auto backend = textIn(wish, "backend");
    if (!backend.empty() && !isPlain(backend, ""))
        return replyError(message, SOUP_STATUS_BAD_REQUEST, "a backend is named by its address");
    const auto pending = std::make_shared<Pending>(message);
    m_players.order(textIn(wish, "player"), {{"do", "graph"}, {"backend", backend}},
                    [pending](bool ok, const std::string& text, const std::string& dot) {
                        if (!ok)
                            return replyRefused(pending->message(), text);
                        draw(dot, [pending, dot](const std::string& svg, const std::string& error) {
                            replyJson(pending->message(), SOUP_STATUS_OK,
                                      {{"dot", dot}, {"svg", svg}, {"error", error}});
                        });
                    });
}

void Server::givePicture(SoupServerMessage* message, const Query&, const Json& wish) {
    const auto pending = std::make_shared<Pending>(message);
    m_players.order(textIn(wish, "player"), {{"do", "picture"}},
                    [pending](bool ok, const std::string& text, const std::string& png) {
                        if (ok)
                            reply(pending->message(), SOUP_STATUS_OK, "image/png", png);
                        else
                            replyRefused(pending->message(), text);
                    });
}

void Server::setTrace(SoupServerMessage* message, const Query&, const Json& wish) {
    const auto unit = numberIn(wish, "unit");
    const auto level = numberIn(wish, "level");
    constexpr double most = 100000;
    if (!unit || !level || *unit < 0 || *level < 0 || *unit > most || *level > most)
        return replyError(message, SOUP_STATUS_BAD_REQUEST, "a unit and a level are numbers");
    command(message, wish,
            {{"do", "command"},
             {"line", "m_traceon " + std::to_string(static_cast<int>(*unit)) + " " +
                          std::to_string(static_cast<int>(*level))}});
}

void Server::setOutput(SoupServerMessage* message, const Query&, const Json& wish) {
    if (!member(wish, "on").is_boolean())
        return replyError(message, SOUP_STATUS_BAD_REQUEST, "the output is on, true, or false");
    command(message, wish, {{"do", "output"}, {"on", member(wish, "on")}});
}

void Server::setThreshold(SoupServerMessage* message, const Query&, const Json& wish) {
    const auto levels = textIn(wish, "levels");
    if (!isPlain(levels, "*:,_-?"))
        return replyError(message, SOUP_STATUS_BAD_REQUEST,
                          "levels are written as in GST_DEBUG: *:2,uvabackend:5");
    command(message, wish, {{"do", "command"}, {"line", "m_gst_debug_set_threshold " + levels}});
}

void Server::command(SoupServerMessage* message, const Json& wish, Json order) {
    const auto pending = std::make_shared<Pending>(message);
    m_players.order(textIn(wish, "player"), std::move(order),
                    [pending](bool ok, const std::string& text, const std::string&) {
                        if (ok)
                            replyJson(pending->message(), SOUP_STATUS_OK, {{"text", text}});
                        else
                            replyRefused(pending->message(), text);
                    });
}

} // namespace scope
