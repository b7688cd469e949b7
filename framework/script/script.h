#ifndef SCRIPT_H
#define SCRIPT_H

#include "script/script_commands.h"
#include "script/script_control.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

/// The script language: Lua 5.4 without files, processes and network, but for what registered
/// commands do. docs/reference/script.md is its manual. All functions are reentrant; a script runs
/// on the thread that runs it.

/// Bytes of a script's text at most, so that compiling takes no time worth stopping.
constexpr size_t longestScript = 64 * 1024;

/// A script that may run, any number of times and on several threads at once. Cheap to copy.
class CompiledScript {
public:
    CompiledScript(std::string name, std::string code)
        : m_data(std::make_shared<const Data>(Data{std::move(name), std::move(code)})) {}

    /// As positions name it: the file's path, or what the text was called.
    const std::string& name() const { return m_data->name; }
    /// For the engine that has made it.
    const std::string& code() const { return m_data->code; }

private:
    struct Data {
        std::string name;
        std::string code;
    };
    std::shared_ptr<const Data> m_data;
};

/// What compiling gives.
struct ScriptCompilation {
    std::optional<CompiledScript> script;
    std::string error; ///< why there is none, with file and line; empty if there is one
};

/// Compiles a file. Its path is absolute and has no hidden part; the file and its folders are such
/// that nobody but this user and root can have written or put it there, see util/trusted_path.h.
ScriptCompilation SILCompile(const std::string& path);
/// Compiles a text; `name` is for positions.
ScriptCompilation SILCompileText(const std::string& name, std::string_view text);

/// What one run may take.
struct ScriptLimits {
    /// Bytes of the script's heap at a time. The language itself takes about 200 KiB of it.
    size_t memory = 8 * 1024 * 1024;
    /// Steps of the language altogether; waits take none. A PC does some 100 million a second.
    uint64_t steps = 1000 * 1000 * 1000;
    /// Processor time of the thread altogether; that of commands does not count.
    std::chrono::nanoseconds computing = std::chrono::seconds(10);
};

/// How a run ended.
struct ScriptOutcome {
    enum class End {
        Finished,
        Failed,  ///< an error that the script did not catch; also: out of memory
        Stopped, ///< by its control
        TooLong, ///< it took more steps, or more time, than it may
    };
    End end = End::Finished;
    std::string error;  ///< what ended it, with file and line; empty if it finished
    ScriptValue result; ///< what the script returned, the first value; null for none
};

/// Runs a script to its end, which may be never: another thread stops it with `control`. It gets
/// the arguments as "...". A command that does not look at the control is waited for. The thread is
/// not cancelled meanwhile.
ScriptOutcome SILRun(const CompiledScript& script, const ScriptValues& arguments,
                     ScriptControl& control, const ScriptLimits& limits = {});

#endif
