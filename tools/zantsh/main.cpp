#include "exit_code.h"
#include "interactive.h"
#include "interrupt.h"
#include "options.h"
#include "place.h"
#include "session.h"
#include "watch.h"

#include <csignal>
#include <cstdio>
#include <cstring>
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
    const auto box = chooseBox(options.socket, options.box);
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
