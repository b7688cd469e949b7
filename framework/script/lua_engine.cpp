#include "script/language_names.h"
#include "script/script.h"
#include "script/script_prelude.h"
#include "util/cancellation_block.h"
#include "util/printable.h"
#include "util/thrown_by.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <lua.hpp>
#include <type_traits>

// Lua leaves a function with an error by longjmp, past destructors. So what calls into Lua here has
// no object on its stack that needs one: such objects belong to the run (LuaRun), which outlives
// the call, or to functions that call nothing of Lua's that may fail.

namespace {

/// The script is looked after every so many steps, its time every so many.
constexpr int stepsPerLook = 128;
constexpr int stepsPerTimeLook = 64 * stepsPerLook;
/// Of values that go between a script and its commands.
constexpr int deepestValue = 32;
constexpr int mostValues = 20000;

struct LuaLibrary {
    const char* name;
    lua_CFunction open;
};
constexpr LuaLibrary libraries[] = {
    {LUA_STRLIBNAME, luaopen_string},
    {LUA_TABLIBNAME, luaopen_table},
    {LUA_MATHLIBNAME, luaopen_math},
    {LUA_UTF8LIBNAME, luaopen_utf8},
};

/// The heap of a state, bounded.
struct LuaHeap {
    const size_t most;
    size_t used = 0;
};

void* allocateFor(void* user, void* block, size_t oldSize, size_t newSize) {
    auto& heap = *static_cast<LuaHeap*>(user);
    const size_t before = block ? oldSize : 0; // else it is a type
    if (newSize == 0) {
        std::free(block);
        heap.used -= before;
        return nullptr;
    }
    if (newSize > before && newSize - before > heap.most - heap.used)
        return nullptr;
    void* const grown = std::realloc(block, newSize);
    if (grown)
        heap.used = heap.used - before + newSize;
    return grown;
}

class LuaState {
public:
    explicit LuaState(size_t memory)
        : m_heap{memory}, m_state(lua_newstate(allocateFor, &m_heap)) {}
    ~LuaState() {
        if (m_state)
            lua_close(m_state);
    }
    LuaState(const LuaState&) = delete;
    LuaState& operator=(const LuaState&) = delete;
    lua_State* get() const { return m_state; }

private:
    LuaHeap m_heap;
    lua_State* const m_state;
};

/// Processor time of a thread, without that of its pauses.
class ComputingTime {
public:
    void pause() { m_before = soFar(); }
    void goOn() { m_begin = now(); }
    std::chrono::nanoseconds soFar() const { return m_before + now() - m_begin; }

private:
    static std::chrono::nanoseconds now() {
        timespec time{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    }

    std::chrono::nanoseconds m_before{};
    std::chrono::nanoseconds m_begin = now();
};

/// One run of a script.
struct LuaRun {
    const CompiledScript& script;
    const ScriptValues& arguments;
    ScriptControl& control;
    const ScriptLimits& limits;
    const std::vector<const ScriptCommand*> commands = scriptCommands();
    ScriptWatches watches{control};
    ScriptEvents::Inbox signals{control};
    uint64_t steps = 0;
    ComputingTime time{}; // paused in commands
    /// Anything but Finished: the script was ended, and nothing of it goes on, whatever it catches.
    ScriptOutcome::End ended = ScriptOutcome::End::Finished;
    std::string error{}; ///< empty: none
    ScriptValues results{};
};

LuaRun& runOf(lua_State* lua) {
    return **static_cast<LuaRun**>(lua_getextraspace(lua));
}

/// Where the script itself is: "file:line: ". The library has no lines. What a function of the
/// library was called for last, in a return, has no line any more.
std::string positionOf(lua_State* lua) {
    lua_Debug at{};
    for (int level = 0; lua_getstack(lua, level, &at) != 0; ++level) {
        lua_getinfo(lua, "Sl", &at);
        if (at.currentline > 0)
            return std::string(at.short_src) + ":" + std::to_string(at.currentline) + ": ";
    }
    return runOf(lua).script.name() + ": ";
}

int raise(lua_State* lua) {
    const LuaRun& run = runOf(lua);
    lua_pushlstring(lua, run.error.data(), run.error.size());
    return lua_error(lua);
}

void endRun(lua_State* lua, ScriptOutcome::End end, const char* why) noexcept {
    LuaRun& run = runOf(lua);
    if (run.ended != ScriptOutcome::End::Finished)
        return;
    run.ended = end;
    run.error = positionOf(lua) + why;
}

void lookAfter(lua_State* lua, lua_Debug*);

/// Raises the end of a run that has ended, from now on at each step: what catches it gets no
/// further than to the next one.
void raiseEnd(lua_State* lua) {
    if (runOf(lua).ended == ScriptOutcome::End::Finished)
        return;
    lua_sethook(lua, lookAfter, LUA_MASKCOUNT, 1);
    raise(lua);
}

void endIfStopped(lua_State* lua) {
    if (runOf(lua).control.isStopped())
        endRun(lua, ScriptOutcome::End::Stopped, "stopped");
}

void lookAfter(lua_State* lua, lua_Debug*) {
    LuaRun& run = runOf(lua);
    run.steps += stepsPerLook;
    endIfStopped(lua);
    if (run.steps > run.limits.steps)
        endRun(lua, ScriptOutcome::End::TooLong,
               "it has taken more steps than a script may: let it wait for what it looks at");
    // One step may copy a megabyte.
    if (run.steps % stepsPerTimeLook == 0 && run.time.soFar() > run.limits.computing)
        endRun(lua, ScriptOutcome::End::TooLong,
               "it has computed for longer than a script may: let it wait for what it looks at");
    raiseEnd(lua);
}

// From Lua: values of the script's.

class ValueReader {
public:
    explicit ValueReader(lua_State* lua) : m_lua(lua) {}

    ScriptValue read(int index, int depth = 0) {
        if (++m_values > mostValues)
            throw ScriptError("more than " + std::to_string(mostValues) + " values at once");
        switch (lua_type(m_lua, index)) {
        case LUA_TNIL:
            return nullptr;
        case LUA_TBOOLEAN:
            return lua_toboolean(m_lua, index) != 0;
        case LUA_TNUMBER:
            if (lua_isinteger(m_lua, index))
                return static_cast<int64_t>(lua_tointegerx(m_lua, index, nullptr));
            return static_cast<double>(lua_tonumberx(m_lua, index, nullptr));
        case LUA_TSTRING:
            return text(index);
        case LUA_TTABLE:
            return table(lua_absindex(m_lua, index), depth);
        default:
            throw ScriptError(std::string("a value of type ") +
                              lua_typename(m_lua, lua_type(m_lua, index)) +
                              " cannot be handed over");
        }
    }

private:
    std::string text(int index) {
        size_t length = 0;
        const char* const begin = lua_tolstring(m_lua, index, &length);
        return {begin, length};
    }

    ScriptValue table(int index, int depth) {
        constexpr int room = 4;
        if (depth == deepestValue || !lua_checkstack(m_lua, room))
            throw ScriptError("tables more than " + std::to_string(deepestValue) +
                              " deep in each other");
        return lua_rawlen(m_lua, index) > 0 ? array(index, depth) : object(index, depth);
    }

    ScriptValue array(int index, int depth) {
        auto values = ScriptValue::array();
        const auto length = static_cast<lua_Integer>(lua_rawlen(m_lua, index));
        for (lua_Integer i = 1; i <= length; ++i) {
            lua_rawgeti(m_lua, index, i);
            values.push_back(read(-1, depth + 1));
            lua_settop(m_lua, -2);
        }
        return values;
    }

    ScriptValue object(int index, int depth) {
        auto values = ScriptValue::object();
        lua_pushnil(m_lua);
        while (lua_next(m_lua, index) != 0) {
            if (lua_type(m_lua, -2) != LUA_TSTRING)
                throw ScriptError("a table whose keys are neither 1, 2, 3... nor texts");
            values[text(-2)] = read(-1, depth + 1);
            lua_settop(m_lua, -2);
        }
        return values;
    }

    lua_State* const m_lua;
    int m_values = 0;
};

// To Lua: values of commands. They belong to the run, or to who runs it.

static_assert(std::is_trivially_destructible_v<ScriptValue::const_iterator>);

void pushValue(lua_State* lua, const ScriptValue& value, int depth) {
    if (depth == deepestValue)
        luaL_error(lua, "a command gives tables that are too deep in each other");
    constexpr int room = 4;
    luaL_checkstack(lua, room, nullptr);
    switch (value.type()) {
    case ScriptValue::value_t::boolean:
        return lua_pushboolean(lua, value.get<bool>());
    case ScriptValue::value_t::number_integer:
        return lua_pushinteger(lua, value.get<lua_Integer>());
    case ScriptValue::value_t::number_unsigned:
        if (value.get<uint64_t>() <= LUA_MAXINTEGER)
            return lua_pushinteger(lua, value.get<lua_Integer>());
        return lua_pushnumber(lua, value.get<lua_Number>());
    case ScriptValue::value_t::number_float:
        return lua_pushnumber(lua, value.get<lua_Number>());
    case ScriptValue::value_t::string: {
        const auto& text = value.get_ref<const std::string&>();
        lua_pushlstring(lua, text.data(), text.size());
        return;
    }
    case ScriptValue::value_t::array:
        lua_createtable(lua, 0, 0);
        for (size_t i = 0; i < value.size(); ++i) {
            pushValue(lua, value[i], depth + 1);
            lua_rawseti(lua, -2, static_cast<lua_Integer>(i) + 1);
        }
        return;
    case ScriptValue::value_t::object:
        lua_createtable(lua, 0, 0);
        for (auto member = value.begin(); member != value.end(); ++member) {
            lua_pushlstring(lua, member.key().data(), member.key().size());
            pushValue(lua, member.value(), depth + 1);
            lua_rawset(lua, -3);
        }
        return;
    default:
        return lua_pushnil(lua);
    }
}

int pushValues(lua_State* lua, const ScriptValues& values) {
    for (size_t i = 0; i < values.size(); ++i)
        pushValue(lua, values[i], 0);
    return static_cast<int>(values.size());
}

// Commands.

/// Whether it did what it should; else the run has the error. Leaves the stack as it was.
bool perform(lua_State* lua, const ScriptCommand& command) noexcept {
    LuaRun& run = runOf(lua);
    const int count = lua_gettop(lua);
    run.time.pause();
    const auto thrown = thrownBy([&] {
        ScriptValues arguments;
        ValueReader reader(lua);
        for (int i = 1; i <= count; ++i)
            arguments.push_back(reader.read(i));
        run.results = command.function(
            {{std::move(arguments)}, run.script.name(), run.control, run.watches, run.signals});
    });
    run.time.goOn();
    lua_settop(lua, count);
    if (thrown)
        run.error = positionOf(lua) + (command.help.empty() ? "" : command.name + ": ") + *thrown;
    return !thrown;
}

int callCommand(lua_State* lua) {
    const auto* const command =
        static_cast<const ScriptCommand*>(lua_touserdata(lua, lua_upvalueindex(1)));
    const bool isDone = perform(lua, *command);
    endIfStopped(lua);
    raiseEnd(lua);
    return isDone ? pushValues(lua, runOf(lua).results) : raise(lua);
}

// Code.

int appendCode(lua_State*, const void* part, size_t size, void* code) {
    static_cast<std::string*>(code)->append(static_cast<const char*>(part), size);
    return 0;
}

/// Without positions: an error in there is one of the line that called it.
const std::string& preludeCode() {
    static const auto& code = *[] {
        auto* const stripped = new std::string;
        const std::string_view text = scriptPrelude();
        const LuaState state(std::numeric_limits<size_t>::max());
        if (luaL_loadbufferx(state.get(), text.data(), text.size(), "=library", "t") == LUA_OK)
            lua_dump(state.get(), appendCode, stripped, 1);
        return stripped;
    }();
    return code;
}

// The world of a script.

/// Of the basic library; all else is taken away.
bool isKept(const char* name) {
    for (const LanguageName& row : languageNames)
        if (row.kind == LanguageName::Kind::Base && strcmp(row.name, name) == 0)
            return true;
    return false;
}

void openLibraries(lua_State* lua) {
    luaL_requiref(lua, LUA_GNAME, luaopen_base, 1);
    lua_pushnil(lua);
    while (lua_next(lua, 1) != 0) {
        lua_settop(lua, 2); // the key
        if (!isKept(lua_tostring(lua, 2))) {
            lua_pushvalue(lua, 2);
            lua_pushnil(lua);
            lua_rawset(lua, 1); // a field that is there may be cleared on the way
        }
    }
    lua_settop(lua, 0);
    for (const LuaLibrary& library : libraries)
        luaL_requiref(lua, library.name, library.open, 1);
    lua_settop(lua, 0);
    lua_getglobal(lua, LUA_STRLIBNAME);
    lua_pushnil(lua);
    lua_setfield(lua, 1, "dump");
    lua_settop(lua, 0);
}

void addCommands(lua_State* lua) {
    const auto& commands = runOf(lua).commands;
    for (size_t i = 0; i < commands.size(); ++i) {
        lua_pushlightuserdata(lua, const_cast<ScriptCommand*>(commands[i]));
        lua_pushcclosure(lua, callCommand, 1);
        lua_setglobal(lua, commands[i]->name.c_str());
    }
}

void load(lua_State* lua, const char* code, size_t size, const char* name, const char* mode) {
    if (luaL_loadbufferx(lua, code, size, name, mode) != LUA_OK)
        lua_error(lua);
}

void takeResult(lua_State* lua) noexcept {
    LuaRun& run = runOf(lua);
    run.error.clear(); // of what the script has caught
    const auto thrown = thrownBy([&] { run.results = {ValueReader(lua).read(-1)}; });
    if (thrown)
        run.error = run.script.name() + ": what it returns: " + *thrown;
}

int runScript(lua_State* lua) {
    LuaRun& run = runOf(lua);
    openLibraries(lua);
    addCommands(lua);
    const std::string& prelude = preludeCode();
    load(lua, prelude.data(), prelude.size(), "library", "b");
    lua_call(lua, 0, 0);
    load(lua, run.script.code().data(), run.script.code().size(), run.script.name().c_str(), "b");
    const int count = pushValues(lua, run.arguments);
    endIfStopped(lua);
    raiseEnd(lua);
    lua_sethook(lua, lookAfter, LUA_MASKCOUNT, stepsPerLook);
    lua_call(lua, count, 1);
    raiseEnd(lua); // its last step may have caught it
    lua_sethook(lua, nullptr, 0, 0);
    takeResult(lua);
    return run.error.empty() ? 0 : raise(lua);
}

/// The error on the stack, with a position if it has none.
std::string errorOf(lua_State* lua, const std::string& name, const std::string& position) {
    if (lua_type(lua, -1) != LUA_TSTRING)
        return position + "an error that is no text but of type " + luaL_typename(lua, -1);
    size_t length = 0;
    const char* const begin = lua_tolstring(lua, -1, &length);
    const std::string text(begin, length);
    const bool isNamed = text.rfind(name + ":", 0) == 0 || text.rfind("...", 0) == 0;
    return isNamed ? text : position + text;
}

void noteError(lua_State* lua) noexcept {
    LuaRun& run = runOf(lua);
    if (run.ended == ScriptOutcome::End::Finished)
        run.error = errorOf(lua, run.script.name(), positionOf(lua));
}

/// A thread of Lua's stays as it was when an error ended it, whichever: there is a line. What is to
/// be closed is closed then; of a script that was ended nothing goes on.
int runOnThread(lua_State* lua) {
    lua_State* const thread = lua_newthread(lua);
    lua_pushcfunction(thread, runScript);
    int count = 0;
    if (lua_resume(thread, lua, 0, &count) == LUA_OK)
        return 0;
    noteError(thread);
    if (runOf(lua).ended == ScriptOutcome::End::Finished)
        lua_resetthread(thread);
    return 0;
}

/// For people: scripts make errors of any bytes.
std::string shown(const std::string& error) {
    return printable(error, "\t\n");
}

ScriptOutcome outOfMemory(const std::string& name) {
    return {ScriptOutcome::End::Failed, name + ": not enough memory", nullptr};
}

} // namespace

ScriptCompilation SILCompileText(const std::string& name, std::string_view text) {
    if (text.size() > longestScript)
        return {std::nullopt,
                name + ": longer than " + std::to_string(longestScript) + " bytes: split it"};
    const LuaState state(ScriptLimits().memory);
    lua_State* const lua = state.get();
    if (!lua)
        return {std::nullopt, outOfMemory(name).error};
    // '@': positions show the name, or the end of a long one.
    if (luaL_loadbufferx(lua, text.data(), text.size(), ("@" + name).c_str(), "t") != LUA_OK)
        return {std::nullopt, shown(errorOf(lua, name, name + ": "))};
    std::string code;
    lua_dump(lua, appendCode, &code, 0);
    return {CompiledScript(name, std::move(code)), {}};
}

ScriptOutcome SILRun(const CompiledScript& script, const ScriptValues& arguments,
                     ScriptControl& control, const ScriptLimits& limits) {
    const CancellationBlock block;
    LuaRun run{script, arguments, control, limits};
    const LuaState state(limits.memory);
    lua_State* const lua = state.get();
    if (!lua)
        return outOfMemory(script.name());
    *static_cast<LuaRun**>(lua_getextraspace(lua)) = &run;
    lua_pushcfunction(lua, runOnThread);
    if (lua_pcall(lua, 0, 0, 0) != LUA_OK)
        return outOfMemory(script.name());
    if (run.ended != ScriptOutcome::End::Finished)
        return {run.ended, shown(run.error), nullptr};
    if (!run.error.empty())
        return {ScriptOutcome::End::Failed, shown(run.error), nullptr};
    return {ScriptOutcome::End::Finished, {}, run.results.empty() ? nullptr : run.results.front()};
}
