#ifndef SCRIPT_COMMANDS_H
#define SCRIPT_COMMANDS_H

#include "script/script_control.h"
#include "script/script_events.h"
#include "script/script_value.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

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
    size_t add(ScriptEvents::Kind kind, const std::string& text);
    ///@{
    /// Throw ScriptError without a watch of that number.
    ScriptEvents::Watch& get(size_t number);
    void remove(size_t number);
    ///@}

private:
    ScriptControl& m_control;
    std::vector<std::unique_ptr<ScriptEvents::Watch>> m_watches;
};

/// What stands between the parentheses of a call.
struct ScriptArguments {
    const ScriptValues arguments;

    ///@{
    /// Arguments, counted from 1. Throw ScriptError, with `what` in it, if missing or of another
    /// type; `number` gives whole numbers, `seconds` those from 0 on.
    const std::string& text(size_t position, const char* what) const;
    int64_t number(size_t position, const char* what) const;
    double seconds(size_t position, const char* what) const;
    ///@}
    /// Whether there is one at that position, and it is not nil.
    bool has(size_t position) const;
    /// Throws ScriptError if there are more than the usage names, such as "raw(signal [, fields])".
    void refuseMoreThan(const std::string& usage) const;
};

/// One call of a command, on the script's thread.
struct ScriptCall : ScriptArguments {
    const std::string& script; ///< its name
    /// A command that waits does it here, so that the script can be stopped.
    ScriptControl& control;
    ScriptWatches& watches;
    ScriptEvents::Inbox& signals;
};

/// A function that scripts may call, as it was registered.
struct ScriptCommand {
    std::string name;
    /// Begins with the usage, such as "shell(line)"; a description follows after a tab. Empty for
    /// one that is for the library of scripts alone.
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

/// The usage of each command and each function of the library, with what it does behind a tab.
/// Thread-safe.
std::vector<std::string> scriptHelp();

#endif
