#ifndef TOOLS_COMMON_OPTIONS_H
#define TOOLS_COMMON_OPTIONS_H

#include <optional>
#include <string>
#include <utility>

namespace CLI {
class App;
}

namespace tools {

/// The exit code for a command line that is wrong.
constexpr int usageError = 2;

/// Why a program ends before it has begun: help was asked for, or the command line is wrong.
struct EarlyEnd {
    int exitCode = 0;
    std::string text;

    /// Prints the text, help to standard output, and answers the exit code.
    int tell() const;
};

/// What came of a command line.
template <typename Options>
struct Parsed : EarlyEnd {
    std::optional<Options> options; ///< nothing: the program ends
};

/// Reads the command line into what the app's options are bound to. Nothing when all is well.
std::optional<EarlyEnd> readArguments(CLI::App& app, int argc, const char* const* argv);

/// The same for the `options` to which they are bound.
template <typename Options>
Parsed<Options> parse(CLI::App& app, int argc, const char* const* argv, Options& options) {
    if (auto end = readArguments(app, argc, argv))
        return {std::move(*end), std::nullopt};
    return {{}, std::move(options)};
}

} // namespace tools

#endif
