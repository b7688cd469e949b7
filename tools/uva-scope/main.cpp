#include "live.h"
#include "options.h"
#include "players.h"
#include "probe.h"
#include "server.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <glib-unix.h>
#include <stdexcept>
#include <string>

namespace scope {

namespace {

ProbeOptions probeOptions(const Options& options) {
    return {options.sockets.front(), options.boxes.empty() ? "" : options.boxes.front(),
            options.follow, options.period};
}

gboolean quit(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

gboolean quitOnce(gpointer loop) {
    quit(loop);
    return G_SOURCE_REMOVE;
}

std::string placeOf(const Player& player) {
    return player.box().empty() ? "" : player.box() + ": ";
}

/// Gives an answer to whoever has asked. Throws std::runtime_error.
void say(const std::string& text) {
    std::fputs(text.c_str(), stdout);
    if (std::fflush(stdout) != 0)
        throw std::runtime_error(std::string("cannot write to standard output: ") +
                                 std::strerror(errno));
}

int tellNobody(const Players& players) {
    std::fprintf(stderr, "uva-scope: no player answers at %s\n", players.where().c_str());
    players.forEach([](const Player& player) {
        std::fprintf(stderr, "uva-scope: %s%s\n", placeOf(player).c_str(), player.reason().c_str());
    });
    return 1;
}

/// A line for each backend of the players that answer.
int tellWhy(const Players& players) {
    int code = 1;
    players.forEach([&code](const Player& player) {
        if (player.status() != Player::Status::Answers)
            return;
        code = code == 1 ? 0 : code;
        const auto about = player.describe();
        for (const auto& why : listIn(about, "why")) {
            const auto who = textIn(why, "waits_for");
            char seconds[32];
            std::snprintf(seconds, sizeof seconds, ", for %.1f s",
                          numberIn(why, "seconds").value_or(0));
            say(placeOf(player) + (who.empty() ? "nobody" : who + seconds) + ": " +
                textIn(why, "sentence") + "\n");
            code = who.empty() ? code : 3;
        }
    });
    return code == 1 ? tellNobody(players) : code;
}

int lookOnce(const Options& options) {
    constexpr guint longEnough = 3000; // milliseconds
    std::signal(SIGPIPE, SIG_IGN);
    const Players players(options, [] {});
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    g_timeout_add(longEnough, quitOnce, loop);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    return tellWhy(players);
}

int serve(const Options& options) {
    std::signal(SIGPIPE, SIG_IGN); // a probe that has ended is told of elsewhere
    Live* pages = nullptr;
    Players players(options, [&pages] {
        if (pages != nullptr)
            pages->changed();
    });
    Live live(players);
    pages = &live;
    const Server server(players, live, options.port);
    say(server.address() + "\n");
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        g_unix_signal_add(signal, quit, loop);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    pages = nullptr;
    return 0;
}

} // namespace

} // namespace scope

int main(int argc, char** argv) {
    try {
        const auto parsed = scope::parseOptions(argc, argv);
        if (!parsed.options)
            return parsed.tell();
        if (parsed.options->isProbe)
            return scope::runProbe(scope::probeOptions(*parsed.options));
        return parsed.options->isOneLook ? scope::lookOnce(*parsed.options)
                                         : scope::serve(*parsed.options);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "uva-scope: %s\n", failure.what());
    }
    return 1;
}
