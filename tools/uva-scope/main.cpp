#include "live.h"
#include "options.h"
#include "players.h"
#include "probe.h"
#include "server.h"

#include <csignal>
#include <cstdio>
#include <glib-unix.h>

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
            const auto where = player.box().empty() ? "" : player.box() + ": ";
            if (who.empty())
                std::printf("%snobody: %s\n", where.c_str(), textIn(why, "sentence").c_str());
            else
                std::printf("%s%s, for %.1f s: %s\n", where.c_str(), who.c_str(),
                            numberIn(why, "seconds").value_or(0), textIn(why, "sentence").c_str());
            code = who.empty() ? code : 3;
        }
    });
    if (code == 1)
        std::fputs("uva-scope: no player answers; zantsh says why\n", stderr);
    return code;
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
    std::printf("%s\n", server.address().c_str());
    std::fflush(stdout);
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
