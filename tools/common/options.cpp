#include "common/options.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace tools {

namespace {

using Words = std::vector<std::string>;

std::string take(const Option& option, const std::string& text) {
    if (const auto* const read = std::get_if<Read>(&option.target))
        return (*read)(text);
    if (auto* const all = std::get_if<Words*>(&option.target))
        (*all)->push_back(text);
    else
        *std::get<std::string*>(option.target) = text;
    return {};
}

void declare(CLI::App& app, const Option& option) {
    if (auto* const flag = std::get_if<bool*>(&option.target)) {
        app.add_flag(option.name, **flag, option.help);
        return;
    }
    const auto takeAll = [&option](const Words& texts) {
        for (const auto& text : texts) {
            if (const auto error = take(option, text); !error.empty())
                throw CLI::ValidationError(option.name, error);
        }
        return true;
    };
    const bool repeated =
        option.use == Use::Repeated || std::holds_alternative<Words*>(option.target);
    app.add_option(option.name, takeAll, option.help)
        ->type_name(option.value)
        ->expected(1, repeated ? CLI::detail::expected_max_vector_size : 1)
        ->allow_extra_args(repeated && option.name[0] != '-'); // several words in a row
}

void declareAll(CLI::App& app, const CommandLine& line) {
    app.footer(line.details);
    app.get_formatter()->column_width(34);
    app.set_help_flag("-h,--help", "Print this and exit");
    for (const auto& group : line.groups) {
        app.option_defaults()->group(group.title);
        for (const auto& option : group.options)
            declare(app, option);
        for (const auto& option : group.options) {
            if (option.needs)
                app.get_option(option.name)->needs(app.get_option(option.needs));
        }
    }
    app.option_defaults()->group("Options");
    app.set_version_flag("--version", std::string(line.program) + " " PROJECT_VERSION,
                         "Print the version and exit");
    app.prefix_command(line.command != nullptr);
}

/// What keeps an option that stands alone from doing so.
std::string companyOf(const CLI::App& app, const CommandLine& line) {
    for (const auto& group : line.groups) {
        for (const auto& option : group.options) {
            if (option.use != Use::Alone || app.count(option.name) == 0)
                continue;
            for (const auto* const other : app.parse_order()) {
                if (!other->check_name(option.name))
                    return std::string(option.name) + " excludes " + other->get_name();
            }
        }
    }
    return {};
}

/// The first word that is no option, and what follows, untouched.
std::string takeCommand(Words words, Words& command) {
    if (!words.empty() && words.front() == "--")
        words.erase(words.begin());
    else if (!words.empty() && words.front().size() > 1 && words.front()[0] == '-')
        return "unknown option '" + words.front() +
               "' (a command that begins with '-' goes after '--')";
    command = std::move(words);
    return {};
}

} // namespace

int EarlyEnd::tell() const {
    std::fputs(text.c_str(), exitCode == 0 ? stdout : stderr);
    return exitCode;
}

std::optional<EarlyEnd> readArguments(const CommandLine& line, int argc, const char* const* argv) {
    const std::string name = line.program;
    CLI::App app(line.purpose, name);
    std::string error;
    try {
        declareAll(app, line);
        Words words(argv + std::min(argc, 1), argv + argc);
        std::reverse(words.begin(), words.end());
        app.parse(std::move(words));
        error = companyOf(app, line);
        if (error.empty() && line.command)
            error = takeCommand(app.remaining(), *line.command);
        if (error.empty() && line.check)
            error = line.check();
    } catch (const CLI::ParseError& end) {
        std::ostringstream out;
        std::ostringstream ignored;
        if (app.exit(end, out, ignored) == 0)
            return EarlyEnd{0, out.str()};
        error = end.what();
    }
    if (error.empty())
        return std::nullopt;
    return EarlyEnd{line.usageError,
                    name + ": " + error + "\nRun '" + name + " --help' for help.\n"};
}

} // namespace tools
