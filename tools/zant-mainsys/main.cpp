#include "common/script.h"
#include "options.h"
#include "session.h"

#include <csignal>
#include <cstdio>
#include <optional>
#include <utility>

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);               // a reader of the log that goes away ends nothing
    std::setvbuf(stdout, nullptr, _IOLBF, 1024); // one that stays sees each line at once

    auto parsed = mainsys::parseOptions(argc, argv);
    if (!parsed.options)
        return parsed.tell();
    // Before the session takes the signals that end it: the file may be a pipe that nobody writes.
    std::optional<CompiledScript> script;
    if (!parsed.options->script.empty()) {
        auto compilation = tools::compileScript(parsed.options->script);
        if (!compilation.script) {
            fprintf(stderr, "zant-mainsys: %s\n", compilation.error.c_str());
            return tools::usageError;
        }
        script = std::move(compilation.script);
    }
    return mainsys::Session(std::move(*parsed.options), std::move(script)).run();
}
