#include "common/options.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <sstream>

namespace tools {

int EarlyEnd::tell() const {
    std::fputs(text.c_str(), exitCode == 0 ? stdout : stderr);
    return exitCode;
}

std::optional<EarlyEnd> readArguments(CLI::App& app, int argc, const char* const* argv) {
    try {
        app.parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        std::ostringstream out;
        std::ostringstream ignored;
        if (app.exit(error, out, ignored) == 0)
            return EarlyEnd{0, out.str()};
        const std::string name = app.get_name();
        return EarlyEnd{usageError,
                        name + ": " + error.what() + "\nRun '" + name + " --help' for help.\n"};
    }
}

} // namespace tools
