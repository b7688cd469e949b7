#include "watch.h"

#include "exit_code.h"
#include "session.h"

#include <cstdio>
#include <ctime>
#include <thread>
#include <unistd.h>

namespace zantsh {

namespace {

constexpr char clearScreen[] = "\033[H\033[2J";

std::string timeOfDay() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    localtime_r(&now, &parts);
    char text[16];
    std::strftime(text, sizeof text, "%H:%M:%S", &parts);
    return text;
}

} // namespace

/// A screen is written at once: it does not flicker.
int watch(const Options& options) {
    const bool onScreen = isatty(STDOUT_FILENO);
    Session session(options, Transcript::Scope::commands);
    try {
        for (;; std::this_thread::sleep_for(*options.every)) {
            std::string text;
            const auto reply = session.run({options.command}, [&](const auto& s) { text += s; });
            printf("%s--- %s  %s\n%s%s\n", onScreen ? clearScreen : "", timeOfDay().c_str(),
                   options.command.c_str(), text.c_str(), reply == Reply::ok ? "OK" : "ERR");
            fflush(stdout);
        }
    } catch (const NoShell& reason) {
        fprintf(stderr, "zantsh: %s\n", reason.what());
    }
    return ExitNoShell;
}

} // namespace zantsh
