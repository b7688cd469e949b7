#include "command_run.h"
#include "exchange.h"
#include "exit_code.h"
#include "interactive.h"
#include "options.h"
#include "target.h"

#include <cstdio>

namespace zantsh {

namespace {

int run(const Options& options) {
    return runWhereTheShellIs(options, [&] {
        cleanUpOnSignals();
        if (options.command.empty())
            return runInteractively(options);
        return runCommand(options, options.command).exitCode;
    });
}

} // namespace

} // namespace zantsh

int main(int argc, char** argv) {
    const auto parsed = zantsh::parseOptions(argc, argv);
    if (!parsed.options) {
        std::fputs(parsed.text.c_str(), parsed.exitCode == 0 ? stdout : stderr);
        return parsed.exitCode;
    }
    try {
        return zantsh::run(*parsed.options);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "zantsh: %s\n", failure.what());
    }
    return zantsh::ExitNoShell;
}
