#include "script/script_commands.h"

#include "script/language_names.h"
#include "script/standard_commands.h"
#include "util/mutex.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <list>

namespace {

constexpr size_t mostWatches = 16;

bool isIdentifier(const std::string& name) {
    const auto isLetter = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
    };
    return !name.empty() && isLetter(name[0]) && std::all_of(name.begin(), name.end(), [&](char c) {
        return isLetter(c) || (c >= '0' && c <= '9');
    });
}

class CommandTable {
public:
    CommandTable() {
        for (ScriptCommand& command : standardScriptCommands())
            m_commands.push_back(std::move(command));
    }

    std::string add(ScriptCommand command) EXCLUDES(m_mutex) {
        if (!isIdentifier(command.name))
            return "'" + command.name + "' is no identifier: letters, digits and '_'";
        if (!command.function)
            return "command '" + command.name + "' has no function";
        const auto isIt = [&](const auto& name) { return command.name == name; };
        if (std::any_of(std::begin(languageNames), std::end(languageNames),
                        [&](const LanguageName& row) { return isIt(row.name); }))
            return "'" + command.name + "' is a name of the language: choose another";
        const MutexLock lock(m_mutex);
        for (const ScriptCommand& known : m_commands)
            if (isIt(known.name))
                return "there is a command '" + command.name + "': choose another name";
        m_commands.push_back(std::move(command));
        return {};
    }

    std::vector<const ScriptCommand*> all() EXCLUDES(m_mutex) {
        std::vector<const ScriptCommand*> commands;
        const MutexLock lock(m_mutex);
        for (const ScriptCommand& command : m_commands)
            commands.push_back(&command);
        return commands;
    }

private:
    Mutex m_mutex;                                           // the list, not the commands
    std::list<ScriptCommand> m_commands GUARDED_BY(m_mutex); // in order of registration
};

CommandTable& commandTable() {
    static auto& table = *new CommandTable;
    return table;
}

const ScriptValue& argumentOf(const ScriptValues& arguments, size_t position, const char* what,
                              bool (*isGood)(const ScriptValue&), const char* type) {
    if (position <= arguments.size() && isGood(arguments[position - 1]))
        return arguments[position - 1];
    throw ScriptError("argument " + std::to_string(position) + " (" + what + ") is missing or no " +
                      type);
}

} // namespace

size_t ScriptWatches::add(ScriptEvents::Kind kind, const std::string& text) {
    const auto free = std::find(m_watches.begin(), m_watches.end(), nullptr);
    if (free == m_watches.end() && m_watches.size() == mostWatches)
        throw ScriptError("there are " + std::to_string(mostWatches) +
                          " watches: forget one that is not needed");
    auto watch = std::make_unique<ScriptEvents::Watch>(kind, text, m_control);
    const auto number = static_cast<size_t>(free - m_watches.begin()) + 1;
    if (free == m_watches.end())
        m_watches.push_back(std::move(watch));
    else
        *free = std::move(watch);
    return number;
}

ScriptEvents::Watch& ScriptWatches::get(size_t number) {
    if (number < 1 || number > m_watches.size() || !m_watches[number - 1])
        throw ScriptError("there is no watch " + std::to_string(number) + ": watch gives one");
    return *m_watches[number - 1];
}

void ScriptWatches::remove(size_t number) {
    get(number);
    m_watches[number - 1].reset();
}

const std::string& ScriptArguments::text(size_t position, const char* what) const {
    const auto isText = [](const ScriptValue& value) { return value.is_string(); };
    return argumentOf(arguments, position, what, isText, "text").get_ref<const std::string&>();
}

int64_t ScriptArguments::number(size_t position, const char* what) const {
    const auto isWhole = [](const ScriptValue& value) { return wholeNumber(value).has_value(); };
    return *wholeNumber(argumentOf(arguments, position, what, isWhole, "whole number"));
}

double ScriptArguments::seconds(size_t position, const char* what) const {
    const auto isTime = [](const ScriptValue& value) {
        return value.is_number() && value.get<double>() >= 0;
    };
    return argumentOf(arguments, position, what, isTime, "number of seconds from 0 on")
        .get<double>();
}

void ScriptArguments::refuseMoreThan(const std::string& usage) const {
    const auto commas = std::count(usage.begin(), usage.end(), ',');
    const bool isWithout = usage.find("()") != std::string::npos;
    if (arguments.size() > (isWithout ? 0 : static_cast<size_t>(commas) + 1))
        throw ScriptError("that is too much: write " + usage);
}

bool ScriptArguments::has(size_t position) const {
    return position <= arguments.size() && !arguments[position - 1].is_null();
}

std::string registerScriptCommand(const std::string& name, const std::string& help,
                                  std::function<ScriptValues(const ScriptCall&)> function) {
    return commandTable().add({name, help, std::move(function)});
}

std::vector<const ScriptCommand*> scriptCommands() {
    return commandTable().all();
}

std::vector<std::string> scriptHelp() {
    std::vector<std::string> lines;
    for (const ScriptCommand* const command : scriptCommands())
        if (!command->help.empty())
            lines.push_back(command->help);
    for (const LanguageName& row : languageNames)
        if (row.help)
            lines.emplace_back(row.help);
    return lines;
}
