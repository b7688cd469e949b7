#ifndef TOOLS_COMMON_OPTIONS_H
#define TOOLS_COMMON_OPTIONS_H

#include <charconv>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace tools {

/// The exit code for a command line that is wrong, unless a program has one of its own.
constexpr int usageError = 2;

/// Takes the text of a value. Answers what is wrong with it and what to write; empty: it is taken.
using Read = std::function<std::string(const std::string& text)>;

/// How often an option may be there. Alone: once, and no other one.
enum class Use { Once, Repeated, Alone };

struct Option {
    const char* name;  ///< "--seek" or "-h,--help"; without dashes: the words between the options
    const char* value; ///< what the help calls its value; null: a flag
    const char* help;
    /// Takes the value: of a flag, of one option, of any number, or after a check.
    std::variant<bool*, std::string*, std::vector<std::string>*, Read> target;
    Use use = Use::Once;
    const char* needs = nullptr; ///< the option that must be there as well
};

struct OptionGroup {
    const char* title;
    std::vector<Option> options;
};

/// A program's command line: what it understands, and what its help says.
struct CommandLine {
    const char* program;
    const char* purpose;
    std::string details; ///< behind the options in the help
    std::vector<OptionGroup> groups;
    std::vector<std::string>* command = nullptr; ///< gets the first word that is no option, and all
                                                 ///< behind it; null: there is no command
    int usageError = tools::usageError;
    std::function<std::string()> check = {}; ///< once all is read: what is wrong with it, or empty
};

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

/// Reads the words behind the program's name. Nothing when all is well.
std::optional<EarlyEnd> readArguments(const CommandLine& line, int argc, const char* const* argv);

/// The same for the `options` that are the targets.
template <typename Options>
Parsed<Options> parse(const CommandLine& line, int argc, const char* const* argv,
                      Options& options) {
    if (auto end = readArguments(line, argc, argv))
        return {std::move(*end), std::nullopt};
    return {{}, std::move(options)};
}

/// How a value is written, and what is said of a text that is none.
template <typename Value>
struct Form {
    std::optional<Value> (*read)(const std::string& text);
    const char* complaint; ///< such as "is no time; write 12.5 or 1:30"
};

/// Reads a value into its place, or behind others of its kind.
template <typename Value, typename Target>
Read into(Target& target, const Form<Value>& form) {
    return [&target, form](const std::string& text) {
        auto value = form.read(text);
        if (!value)
            return "'" + text + "' " + form.complaint;
        if constexpr (std::is_same_v<Target, std::vector<Value>>)
            target.push_back(std::move(*value));
        else
            target = std::move(*value);
        return std::string();
    };
}

/// A decimal number within bounds, the whole text; a whole one if its type is.
template <typename Number>
std::optional<Number> readNumber(const std::string& text, Number least, Number most) {
    Number value{};
    const char* const end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, value);
    const bool good = read.ec == std::errc() && read.ptr == end && value >= least && value <= most;
    return good ? std::optional(value) : std::nullopt;
}

} // namespace tools

#endif
