#include "options.h"

namespace scope {

namespace {

constexpr const char* purpose =
    R"(Shows what players are doing, and why they do not move, on a page for a browser.

Prints the page's address, with the token that it needs, and serves until Ctrl-C. It asks the players'
debug shells; a player that starts later, or anew, is found by itself.)";

constexpr const char* details = R"(
Who may look
  Programs of this host alone, with the token: it is new each time. From another machine, forward the
  port:  ssh -L 8080:127.0.0.1:PORT set  and open the address with 8080 in the port's place.

What it changes
  Nothing, but what the page has a control for: trace levels, GStreamer's debug levels. Graphs,
  pictures and states are asked for. zantsh can be used meanwhile.

Players
  Without --socket and --box: the shell zant_dbg_server_uva of this system and of each running box
  (tvbox), in a box that of the box. Root sees the players of all users. They are asked whether or not
  a page is open, so that it has what came before; --box names those to ask alone.

Output of a player
  As with zantsh: standard output if it is a file, and a trace log that the player has open; files of
  --follow beside.

Examples
  uva-scope
  uva-scope --port 8080 --follow build/play.log
  uva-scope --box tv1 --box tv2
  uva-scope --box tv1 --why

Exit codes
  0  ended by Ctrl-C or SIGTERM; --why: nobody is waited for
  1  the port cannot be had, or the address or the answer not be written; standard error says why.
     --why: no player answers
  2  the command line is wrong
  3  --why: somebody is waited for
)";

std::optional<int> parsePort(const std::string& text) {
    return tools::readNumber(text, 1, 65535);
}

std::optional<std::chrono::milliseconds> parseRate(const std::string& text) {
    const auto rate = tools::readNumber(text, 0.1, 50.0);
    return rate ? std::optional(std::chrono::milliseconds(static_cast<long>(1000 / *rate)))
                : std::nullopt;
}

std::optional<std::string> parseSocket(const std::string& name) {
    const bool plain = !name.empty() && name.find('/') == std::string::npos;
    return plain ? std::optional(name) : std::nullopt;
}

constexpr tools::Form<int> port{parsePort, "is no port; write a number from 1 to 65535"};
constexpr tools::Form<std::chrono::milliseconds> rate{parseRate,
                                                      "is no rate; write a number from 0.1 to 50"};
constexpr tools::Form<std::string> socketName{parseSocket,
                                              "is no name in /tmp; write it without a folder"};

} // namespace

tools::Parsed<Options> parseOptions(int argc, const char* const* argv) {
    Options options;
    using tools::into;
    using tools::Use;
    tools::CommandLine line{
        "uva-scope",
        purpose,
        details,
        {{"Options",
          {{"--port", "N", "Serve at this port (any that is free)", into(options.port, port)},
           {"--socket", "NAME", "A shell's socket in /tmp (zant_dbg_server_uva)",
            into(options.sockets, socketName), Use::Repeated},
           {"--box", "NAME", "Look into this box alone", &options.boxes},
           {"--follow", "FILE", "Show what is added to this file, such as a system log",
            &options.follow},
           {"--rate", "N", "Ask a player so often a second (10)", into(options.period, rate)},
           {"--why", nullptr, "Look for three seconds, say why nothing is moving, and end",
            &options.isOneLook},
           {"--probe", nullptr,
            "Look at one player for another uva-scope: messages on standard output",
            &options.isProbe}}}}};
    line.check = [&] {
        if (options.sockets.empty())
            options.sockets = {"zant_dbg_server_uva"};
        return std::string();
    };
    return tools::parse(line, argc, argv, options);
}

} // namespace scope
