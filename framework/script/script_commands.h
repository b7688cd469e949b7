#ifndef SCRIPT_COMMANDS_H
#define SCRIPT_COMMANDS_H

#include "script/script_control.h"
#include "script/script_events.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

/// What goes between a script and its commands: nil as null, booleans, whole and other numbers,
/// strings of any bytes, tables as arrays (from 1 on, without gaps) or as objects.
using ScriptValue = nlohmann::json;
using ScriptValues = std::vector<ScriptValue>;

/// What a command throws to fail: the script ends, or catches it, with this text and with the file
/// and line of the call. It says what to do.
class ScriptError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The watches of one script; they go with it.
class ScriptWatches {
public:
    explicit ScriptWatches(ScriptControl& control) : m_control(control) {}

    /// The number of a new watch. Throws ScriptError when there are 16.
    size_t add(const std::string& kind, const std::string& text);
    ///@{
    /// Throw ScriptError without a watch of that number.
    ScriptEvents::Watch& get(size_t number);
    void remove(size_t number);
    ///@}

private:
    ScriptControl& m_control;
    std::vector<std::unique_ptr<ScriptEvents::Watch>> m_watches;
};

/// One call of a command, on the script's thread.
struct ScriptCall {
    const std::string& script; ///< its name
    const ScriptValues arguments;
    /// A command that waits does it here, so that the script can be stopped.
    ScriptControl& control;
    ScriptWatches& watches;

    ///@{
    /// Arguments, counted from 1. Throw ScriptError, with `what` in it, if missing or of another
    /// type; `number` gives whole numbers.
    const std::string& text(size_t position, const char* what) const;
    int64_t number(size_t position, const char* what) const;
    ///@}
    /// That many seconds from now.
    ScriptControl::Clock::time_point deadline(size_t position, const char* what) const;
};

/// A function that scripts may call, as it was registered.
struct ScriptCommand {
    std::string name;
    /// Begins with the usage, such as "sleep(seconds)"; a description follows after a tab.
    std::string help;
    /// Gives what the call returns in the script. Called by any number of scripts at a time, under
    /// no lock.
    std::function<ScriptValues(const ScriptCall&)> function;
};

/// Gives all scripts that start from now on a function of that name. Empty if it is done, else why
/// not: a name is an identifier that the language, or an earlier command, does not use. Commands
/// are never removed. Thread-safe.
std::string registerScriptCommand(const std::string& name, const std::string& help,
                                  std::function<ScriptValues(const ScriptCall&)> function);

/// All of them, in the order of their registration. They live as long as the process. Thread-safe.
std::vector<const ScriptCommand*> scriptCommands();

#endif
