#include "common/box_registry.h"
#include "exchange.h"
#include "exit_code.h"
#include "interactive.h"
#include "interrupt.h"
#include "options.h"
#include "session.h"
#include "watch.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <sys/wait.h>
#include <unistd.h>

namespace zantsh {

namespace {

int run(const Options& options) {
    cleanUpOnSignals();
    if (options.command.empty())
        return runInteractively(options);
    if (options.every)
        return watch(options);
    return Session(options, Transcript::Scope::commands).runAndPrint(options.command);
}

std::string listOf(const std::vector<tvbox::BoxInfo>& boxes) {
    std::string names;
    for (const auto& box : boxes)
        names += (names.empty() ? "" : ", ") + box.name;
    return names.empty() ? "none" : names;
}

/// The box to go to; none for here.
std::optional<tvbox::BoxInfo> chooseBox(const Options& options) {
    if (!options.box.empty()) {
        if (auto box = tvbox::findBox(options.box))
            return box;
        throw NoShell("no box named '" + options.box +
                      "' is running; running: " + listOf(tvbox::listBoxes()));
    }
    if (getenv("TVBOX") || shellListens(options.socket))
        return std::nullopt;
    const auto boxes = tvbox::listBoxes();
    if (boxes.size() > 1)
        throw NoShell("no shell at /tmp/" + options.socket +
                      " outside of boxes; choose one with --box: " + listOf(boxes));
    return boxes.empty() ? std::nullopt : std::optional(boxes.front());
}

/// Only a child belongs to the box's processes and sees them in its /proc.
int runInBox(const tvbox::BoxInfo& box, const Options& options) {
    tvbox::joinBox(box);
    const pid_t child = fork();
    if (child < 0)
        throw NoShell("no process in box '" + box.name + "': " + strerror(errno));
    if (child == 0) {
        const int code = run(options);
        fflush(stdout);
        _exit(code);
    }
    std::signal(SIGINT, SIG_IGN); // the child's to answer
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int runWhereTheShellIs(const Options& options) {
    const auto box = chooseBox(options);
    return box ? runInBox(*box, options) : run(options);
}

} // namespace

} // namespace zantsh

int main(int argc, char** argv) {
    try {
        const auto parsed = zantsh::parseOptions(argc, argv);
        return parsed.options ? zantsh::runWhereTheShellIs(*parsed.options) : parsed.tell();
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "zantsh: %s\n", failure.what());
    }
    return zantsh::ExitNoShell;
}
