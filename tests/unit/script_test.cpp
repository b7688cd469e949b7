// The script language: what it offers, what it keeps scripts from, and how they end.

#include "script/script.h"

#include "config/cfg_file.h"
#include "debug/shell/command_struct.h"
#include "debug/shell/mshell.h"
#include "debug/shell/zant_trace_mshell.h"
#include "debug/trace/sys_vars.h"
#include "messaging/observer/observable_callback_function.h"
#include "messaging/queue/zant_msg.h"
#include "messaging/thread/thread_object.h"
#include "script/script_events.h"
#include "script/script_mshell.h"
#include "script/script_runs.h"
#include "state/framework_state.h"
#include "support/no_threads.h"
#include "support/wait_until.h"
#include "trace_fixture.h"

#include <filesystem>
#include <fstream>
#include <future>
#include <lua.hpp>
#include <map>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using support::waitUntil;
using End = ScriptOutcome::End;

namespace {

bool registerScriptThings() {
    AddScriptMshellCmds();
    AddZantTraceMshellCmds();
    AddStateMshellCmds();
    return true;
}

class ScriptTest : public TraceTest {
protected:
    ScriptTest() {
        static const bool registered = registerScriptThings();
        EXPECT_TRUE(registered);
        zantTrace.SetTraceWithColors(0);
        std::filesystem::create_directory(folder);
    }
    ~ScriptTest() override {
        ScriptRuns::instance().stopAll(std::chrono::seconds(20));
        std::filesystem::remove_all(folder);
    }

    ScriptOutcome run(const std::string& text, const ScriptValues& arguments = {},
                      const ScriptLimits& limits = {}) {
        const auto compilation = SILCompileText("test", text);
        if (!compilation.script)
            return {End::Failed, compilation.error, nullptr};
        return SILRun(*compilation.script, arguments, control, limits);
    }
    ScriptValue resultOf(const std::string& text) {
        const auto outcome = run(text);
        EXPECT_EQ(outcome.error, "") << text;
        return outcome.result;
    }
    std::string errorOf(const std::string& text) { return run(text).error; }

    std::string write(const std::string& text, const char* name = "test.lua") const {
        const auto path = folder / name;
        std::ofstream(path, std::ios::binary) << text;
        chmod(path.c_str(), 0600);
        return path;
    }
    int32_t command(const std::string& line) { return mshell.ProcessMshellCmd(line.c_str()); }

    ScriptControl control;
    const std::filesystem::path folder = "/tmp/script_test_" + std::to_string(getpid());
};

std::atomic<bool> isDeaf{false};

/// How the only script of that file stands.
ScriptRuns::Info scriptOf(const std::string& path) {
    for (const auto& info : ScriptRuns::instance().list())
        if (info.name == path)
            return info;
    return {0, "", false, {}, ""};
}

std::string textOf(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST_F(ScriptTest, ErrorsNameFileAndLine) {
    scriptSignalObserver(); // has its signals known
    const std::map<std::string, std::string> errors = {
        {"x = = 1", "test:1: unexpected symbol near '='"},
        {"\n\nlocal function f() nothing.x = 1 end\nf()", "test:3: attempt to index a nil value"},
        {"error('mine')", "test:1: mine"},
        {"\nerror({})", "test:2: an error that is no text but of type table"},
        {"\nsleep('x')", "test:2: bad argument #1 to 'sleep' (number expected, got string)"},
        {"sleep(-1)", "test:1: bad argument #1 to 'sleep' (seconds from 0 on expected, got -1)"},
        {"sleep(0/0)", "test:1: bad argument #1 to 'sleep' (seconds from 0 on expected"},
        {"\nshell()", "test:2: shell: argument 1 (command line) is missing or no text"},
        {"\n\nwait_trace(nil, 1)", "test:3: watch: argument 2 (text to look for)"},
        {"\nwait_trace('x')", "test:2: bad argument #2 to 'wait_trace' (number expected"},
        {"wait(7, 1)", "test:1: there is no watch 7: watch gives one"},
        {"\nwait_signal('NOPE', 1)",
         "test:2: no signal here has 'NOPE' in its name: signal_names()"},
        {"when(7, print)", "test:1: bad argument #1 to 'when' (string expected, got number)"},
        {"\nwhen('STANDBY', 7)", "test:2: bad argument #2 to 'when' (function expected"},
        {"wait_signal('STANDBY', 1, 7)",
         "test:1: bad argument #3 to 'wait_signal' (table expected"},
        {"\nexpect_signal('STANDBY', 0)",
         "test:2: STANDBY did not come within 0 s; since the last"},
        {"\nexpect_state('no such', 0)", "test:2: the state 'no such' did not come within 0 s"},
        {"\nwait_until(1, 2)", "test:2: bad argument #1 to 'wait_until' (function expected"},
        {"wait_until(print)", "test:1: bad argument #2 to 'wait_until' (number expected"},
        {"log(print)", "test:1: log: a value of type function cannot be handed over"},
        {"log({print})", "a value of type function"},
        {"t = {} t[1] = t log(t)", "tables more than 32 deep"},
        {"log({[1.5] = 1})", "a table whose keys are neither"},
        {"t = {} for i = 1, 30000 do t[i] = i end log(t)", "more than 20000 values"},
        {"\nreturn print", "what it returns: a value of type function"},
        {"return key.okk", "test:1: key_code: no key has the name 'okk': key_names() lists them"},
        {"\nkey.ok = 1", "test:2: the codes of keys are fixed"},
        {"forget(-1)", "test:1: forget: there is no watch 0: watch gives one"},
        {"sys_int.x = 1.5", "test:1: set_int: argument 2 (value) is missing or no whole number"},
        {"sys_int.x = 2^63", "test:1: set_int: argument 2 (value) is missing or no whole number"},
        {"sys_int.x = 'y'", "test:1: set_int: argument 2 (value) is missing or no whole number"},
        {"sys_int.x = 1 << 31", "test:1: set_int: a system variable has 32 bits"},
        {"sys_string.x = nil", "test:1: set_string: argument 2 (value) is missing"},
        {"sys_string[('n'):rep(65)] = ''", "the name has more than 64 bytes"},
        {"sys_string.x = ('n'):rep(4097)", "the value has more than 4096 bytes"},
        {"for i = 1, 2000 do sys_int['v' .. i] = 1 end", "there are 1000 system variables"},
        {"for i = 1, 17 do watch('trace', 'x') end", "test:1: watch: there are 16 watches"},
        {"return state('nosuch')", "test:1: state: the state has no member 'nosuch'"},
        {"return ('x'):find('[')", "test: malformed"},
        {"\ntable.insert({}, 9, 9)", "test:2: bad argument #2 to"},
        {"\nerror(nil)", "test:2: an error that is no text but of type nil"},
        {"\nlocal at = ('x'):find('[')", "test:2: malformed pattern (missing ']')"},
        {"\nlocal s = ('x'):gsub('x', '%x')", "test:2: invalid use of '%' in replacement string"},
        {std::string("\x1bLua"), "attempt to load a binary chunk"},
        {std::string(longestScript + 1, ' '), "test: longer than 65536 bytes: split it"},
    };
    for (const auto& [text, error] : errors) {
        const auto outcome = run(text);
        EXPECT_EQ(outcome.end, End::Failed) << text.substr(0, 99);
        EXPECT_NE(outcome.error.find(error), std::string::npos)
            << text.substr(0, 99) << ": " << outcome.error;
    }
}

TEST_F(ScriptTest, KeepsScriptsToThemselves) {
    for (const char* const name :
         {"io", "os", "package", "debug", "coroutine", "require", "load", "loadstring", "loadfile",
          "dofile", "collectgarbage", "warn", "string.dump", "_G.io", "_ENV.os"})
        EXPECT_EQ(resultOf(std::string("return type(") + name + ")"), "nil") << name;
    // What would go on where nobody counts is refused, or is counted.
    const std::map<std::string, std::string> refused = {
        {"setmetatable({}, {__gc = function() while true do end end})",
         "'__gc' is not for scripts"},
        {"rawget = function() end setmetatable({}, {__gc = print})", "'__gc' is not for scripts"},
        {"table.concat(setmetatable({}, {__index = getmetatable, __metatable = ''}), '', 1, 1 << "
         "62)",
         "tables without a metatable"},
        {"table.insert(setmetatable({}, {__len = function() return 1 << 62 end}), 1, 1)",
         "tables without a metatable"},
        {"local t = {} for i = 62, 0, -1 do t[1 << i] = 1 end table.insert(t, 1, 1)",
         "lists of at most 1000000 elements"},
        {"table.move({}, 1, 1 << 40, 2)", "moves at most 1000000 elements"},
        {"table.move({}, math.mininteger, math.maxinteger, 2)", "moves at most 1000000 elements"},
        {"table.move({}, 1, 2, 1, setmetatable({}, {}))", "tables without a metatable"},
        {"return ('x'):find(('y'):rep(2000), 1, true)", "a text of more than 1024 bytes"},
        {"local function f() return f() + 1 end return f()", "not enough memory"},
        {"local function f() return pcall(f) end assert(f())\nerror('deep')", "test:"},
        {"local t = {} for i = 1, 200 do t = setmetatable({}, {__index = t}) end "
         "local function f(x) return f(tostring(setmetatable({}, {__tostring = f}))) end f()",
         "overflow"},
        {"\nlocal x = ('x'):rep(1 << 40)", "test:2: resulting string too large"},
        {"local x = ('x'):rep(1 << 25)", "not enough memory"},
        {"local s = 'x' while true do s = s .. s end", "not enough memory"},
        {"local t = {} while true do t[#t + 1] = {} end", "not enough memory"},
    };
    for (const auto& [text, error] : refused)
        EXPECT_NE(errorOf(text).find(error), std::string::npos) << text << ": " << errorOf(text);
    EXPECT_EQ(resultOf("return #(''):rep(1 << 62)"), 0);
    EXPECT_EQ(resultOf("return select(2, pcall(string.rep, 'x', 1 << 40)) and 'goes on'"),
              "goes on");
    // One script finds nothing of another.
    resultOf("string.sub = nil left = 1");
    EXPECT_EQ(resultOf("return tostring(left) .. type(string.sub)"), "nilfunction");
}

TEST_F(ScriptTest, StepsAreBoundAndNothingKeepsAScriptThatHasTakenThem) {
    ScriptLimits few;
    few.steps = 200000;
    for (const char* const text : {
             "while true do end",
             "for i = 1, math.huge do end",
             "::again:: goto again",
             "while true do pcall(function() while true do end end) end",
             "local function f() while true do pcall(f) end end f()",
             "return pcall(function() while true do end end)",
             "return xpcall(function() while true do end end, function() while true do end end)",
             "local x <close> = setmetatable({}, {__close = function() while true do end end})",
             "local t = setmetatable({}, {__index = function() while true do end end}) return t.x",
             "table.sort({3, 1, 2}, function() while true do end end)",
             "local x = (('a'):rep(40) .. 'b'):find(('a*'):rep(20) .. 'c')",
             "local n = ('x'):rep(100000):gsub('.', function() return pcall(error) end)",
             "local function f() return f() end f()",
             "setmetatable(_G, {__index = function() return 1 end}) while nothing do end",
         }) {
        const auto outcome = run(text, {}, few);
        EXPECT_EQ(outcome.end, End::TooLong) << text << ": " << outcome.error;
        EXPECT_NE(outcome.error.find("test:1: it has taken more steps"), std::string::npos)
            << text << ": " << outcome.error;
    }
    EXPECT_EQ(run("for i = 1, 10000 do end", {}, few).end, End::Finished);
    ScriptLimits quick; // one step may take long
    quick.computing = std::chrono::milliseconds(100);
    const auto outcome = run("local s = ('x'):rep(100000) while true do s:upper() end", {}, quick);
    EXPECT_EQ(outcome.end, End::TooLong);
    EXPECT_NE(outcome.error.find("test:1: it has computed for longer"), std::string::npos)
        << outcome.error;
    static const auto registered = registerScriptCommand("be_busy", "be_busy()", [](const auto&) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
        while (std::chrono::steady_clock::now() < end) {
        }
        return ScriptValues{};
    });
    EXPECT_EQ(registered, "");
    EXPECT_EQ(run("be_busy() for i = 1, 20000 do end", {}, quick).error, "");
    ScriptLimits tiny;
    for (tiny.memory = 0; tiny.memory < 400000; tiny.memory += 9000)
        EXPECT_NE(run("return 1", {}, tiny).end, End::Stopped);
}

/// Matching is our own, because Lua's cannot be stopped: it finds what Lua's finds.
TEST_F(ScriptTest, MatchesPatternsAsLuaDoes) {
    const char* const compare = R"lua(
local out = {}
local function note(...)
    local values = table.pack(...)
    for i = 1, values.n do values[i] = tostring(values[i]) end
    out[#out + 1] = table.concat(values, ",")
end
for _, s in ipairs { "", "a", "abc", "hello world", "  k = v  ", "THE (quick) fox", "f(a(b)c)d",
                     "x=1, y=22", "aaaab", "%d]", "\0\1x", "tab\tnl\n", "0x1F 42 -7", "abcabc", "[x]" } do
    for _, p in ipairs { "", "a", "a*", "a-", "a?", "a+", ".", ".*", ".-", "^a", "b$", "^$", "$", "(a)(b)",
                         "()", "(.-)=(.-)$", "%s*(%w+)%s*=%s*(%w+)", "%b()", "%f[%w]%w+", "%f[%a]",
                         "(%a)%1", "(%w+)", "[abc]+", "[^abc]+", "[]]", "[^]]", "[a-c]", "[a-]", "[-a]",
                         "[%]]", "[%d%s]+", "%a%d*", "%D+", "%S+", "%x+", "%p", "%c", "%g+", "%u%l*", "%W",
                         "((a)b)", "(a*(.)%w(%s*))", "%%", "%.", "x$y", "^^a", "$a", "(a-)(b*)", "()ll()" } do
        note(s:find(p)) note(s:find(p, 2)) note(s:find(p, -2)) note(s:match(p, 3)) note(s:find(p, 1, true))
        note(s:gsub(p, "<%0>")) note(s:gsub(p, "%1%%", 2)) note(s:gsub(p, { a = "A", b = false, c = 3 }))
        note(s:gsub(p, function(x) return x and #tostring(x) end))
        for a, b in s:gmatch(p) do note(a, b) end
    end
end
return table.concat(out, ";"))lua";
    lua_State* const lua = luaL_newstate();
    luaL_openlibs(lua);
    ASSERT_EQ(luaL_dostring(lua, compare), LUA_OK) << lua_tostring(lua, -1);
    size_t length = 0;
    const char* const text = lua_tolstring(lua, -1, &length);
    const std::string expected(text, length);
    lua_close(lua);
    EXPECT_GT(expected.size(), 50000U);
    EXPECT_TRUE(resultOf(compare) == expected); // too long to print
}

TEST_F(ScriptTest, ValuesGoBothWays) {
    std::string taken;
    const auto echo = [&taken](const ScriptCall& call) {
        taken = ScriptValue(call.arguments).dump();
        return call.arguments;
    };
    static std::function<ScriptValues(const ScriptCall&)> command;
    command = echo;
    static const std::string registered = registerScriptCommand(
        "echo", "echo(...)", [](const ScriptCall& call) { return command(call); });
    EXPECT_EQ(registered, "");
    EXPECT_EQ(resultOf("local a, b, c, d, e, f = echo(nil, true, 1, 1.5, 'x\\0y', {1, {k = 'v'}})\n"
                       "assert(a == nil and b == true and c == 1 and d == 1.5 and e == 'x\\0y')\n"
                       "assert(math.type(c) == 'integer' and f[2].k == 'v' and #f == 2)\n"
                       "return math.mininteger"),
              INT64_MIN);
    EXPECT_EQ(taken, R"([null,true,1,1.5,"x\u0000y",[1,{"k":"v"}]])");
    EXPECT_EQ(run("local a, b = ... return a .. b", {"n", 7}).result, "n7");
    for (const char* const name :
         {"echo", "string", "while", "wait_until", "", "1x", "a b", "shell"})
        EXPECT_NE(registerScriptCommand(name, "", echo), "") << name;
    EXPECT_NE(registerScriptCommand("empty", "", nullptr), "");

    command = [](const ScriptCall&) -> ScriptValues { return {7U, UINT64_MAX, {{"k", false}}}; };
    EXPECT_EQ(resultOf("local a, b, c = echo() return {a, math.type(a), b, c.k}"),
              ScriptValue({7, "integer", 18446744073709551615.0, false}));
    command = [](const ScriptCall&) -> ScriptValues { throw ScriptError("not today"); };
    EXPECT_EQ(errorOf("\necho()"), "test:2: echo: not today");
    EXPECT_EQ(resultOf("return select(2, pcall(echo))"), "test:1: echo: not today");
    command = [](const ScriptCall&) -> ScriptValues { throw 1; };
    EXPECT_NE(errorOf("echo()").find("unknown exception"), std::string::npos);
    // What it gives has to fit into the script's memory, and is let go of when it does not.
    command = [](const ScriptCall&) -> ScriptValues { return {std::string(20 << 20, 'x')}; };
    EXPECT_NE(errorOf("echo()").find("not enough memory"), std::string::npos);
    EXPECT_EQ(resultOf("return pcall(echo)"), false);
    command = [](const ScriptCall&) -> ScriptValues {
        ScriptValue deep;
        for (int i = 0; i < 100; ++i)
            deep = ScriptValue::array({deep});
        return {deep};
    };
    EXPECT_NE(errorOf("echo()").find("too deep"), std::string::npos);
}

TEST_F(ScriptTest, KnowsVariablesKeysAndState) {
    sysVarIntMap.Set("counter", 0);
    EXPECT_EQ(resultOf("sys_int.counter = 41 sys_int.counter = sys_int.counter + 1\n"
                       "sys_string.NAME = 'x' return sys_int.nosuch"),
              nullptr);
    EXPECT_EQ(sysVarIntMap.Get("counter"), 42);
    EXPECT_EQ(sysVarStringMap.Get("NAME"), std::string("x"));
    sysVarStringMap.Set("ZANTALOG_PATH", "/tmp/usb_logs/");
    EXPECT_EQ(resultOf("return sys_string.ZANTALOG_PATH"), "/tmp/usb_logs/");
    EXPECT_EQ(resultOf("return {key.ok, key.back, key[0], key['9'], key.red, key.blue, key.play}"),
              ScriptValue({0x00, 0x0d, 0x20, 0x29, 0x72, 0x71, 0x44}));
    EXPECT_EQ(resultOf("for _, name in ipairs(key_names()) do assert(key[name]) end return 1"), 1);
    EXPECT_EQ(resultOf("return state('process').id"), getpid());
    EXPECT_EQ(resultOf("return type(state().threads[1].name)"), "string");
}

TEST_F(ScriptTest, ShellCommandsGiveTheirOutputToTheScript) {
    screen.take();
    EXPECT_EQ(resultOf("local text, code = shell('m_echo a,  b') return text .. code"), "a,  b\n0");
    EXPECT_EQ(resultOf("local text, code = shell('nosuch') return code"), -1700);
    EXPECT_EQ(screen.take(), "");
    EXPECT_EQ(resultOf("log('one\\ntwo\\n') print('three', nil) log('')"), nullptr);
    EXPECT_EQ(screen.take(),
              "script test: one\nscript test: two\nscript test: three\tnil\nscript test: \n");
    // A listing is as long as it is; a script gets 64 KiB of it.
    EXPECT_EQ(resultOf("return #shell('m_help'):rep(1)").get<size_t>() > 500, true);
}

TEST_F(ScriptTest, WaitsEndWithWhatTheyWaitForOrInTime) {
    const auto begin = ScriptControl::Clock::now();
    EXPECT_EQ(
        resultOf("local n = 0 return wait_until(function() n = n + 1 return n == 3 and n end, "
                 "60, 0.01)"),
        3);
    EXPECT_EQ(resultOf("local b = now() local r = wait_until(function() end, 0.1) "
                       "return r == nil and now() - b >= 0.1"),
              true);
    EXPECT_EQ(resultOf("local b = now() sleep(0.05) return now() - b >= 0.05"), true);
    EXPECT_EQ(resultOf("return wait_trace('nothing of the kind', 0.05)"), nullptr);
    EXPECT_NE(errorOf("wait_until(function() error('bad') end, 60)").find("test:1: bad"),
              std::string::npos);
    // A watch sees what came before the wait; the script's own lines are none.
    const char* const watched = "local w = watch('trace', 'needle')\n"
                                "log('needle') shell('m_echo needle')\n"
                                "assert(wait(w, 0.01) == nil)\n"
                                "go()\n"
                                "return wait(w, 60) .. '|' .. tostring(wait(w, 0.01))";
    static const auto registered = registerScriptCommand("go", "go()", [](const ScriptCall&) {
        ZANT_TRACE(unit, TRACELEVEL_ERROR, "a needle in here\n");
        ZANT_TRACE(unit, TRACELEVEL_ERROR, "another needle\n");
        return ScriptValues{};
    });
    EXPECT_EQ(registered, "");
    const auto seen = resultOf(watched).get<std::string>();
    EXPECT_NE(seen.find("a needle in here|nil"), std::string::npos) << seen;
    // One that comes while the script waits; and of another mode.
    zantTrace.SetTraceModeDirectPrint(0);
    std::thread tracer([] {
        while (static_cast<void (*)(const char*)>(traceSettings.lineObserver) == nullptr)
            std::this_thread::yield();
        ZANT_TRACE(unit, TRACELEVEL_ERROR, "queued needle\n");
        zantTraceThread.PrintNextTrace();
    });
    EXPECT_NE(resultOf("return wait_trace('queued', 60)"), nullptr);
    tracer.join();
    EXPECT_EQ(static_cast<void (*)(const char*)>(traceSettings.lineObserver), nullptr);
    EXPECT_LT(ScriptControl::Clock::now() - begin, std::chrono::seconds(50));
}

TEST_F(ScriptTest, WaitsForSignalsEvenInAFlood) {
    CObservableCallbackFunction observable;
    ASSERT_EQ(observable.RegisterCallbackFunction(scriptSignalObserver(), 0, 0, 0), 0);
    std::atomic<bool> ends{false};
    std::thread notifier([&] {
        for (int32_t i = 0; !ends; ++i) {
            CZantMsg msg(SIG_ID_GOTO_STANDBY);
            msg.param1 = i;
            observable.NotifyObserversWithCallbackFunction(&msg);
        }
    });
    EXPECT_EQ(resultOf("local s = wait_signal('GOTO_STANDBY', 60) return s.name"),
              "SIG_ID_GOTO_STANDBY");
    EXPECT_EQ(resultOf("return wait_signal('STOP_THREAD', 0.02)"), nullptr);
    EXPECT_EQ(resultOf("sleep(0.02) return 'over'"), "over");
    ends = true;
    notifier.join();
}

/// What a script has the signals "one", "two", ... of, with a parameter n.
std::string tell(const std::string& signals) {
    static const auto registered =
        registerScriptCommand("tell", "tell(name, n)", [](const ScriptCall& call) {
            ScriptEvents::instance().publishSignal(call.text(1, "name"), [&call] {
                return ScriptValue{{"n", call.number(2, "n")}};
            });
            return ScriptValues{};
        });
    static const auto over = registerScriptCommand("tell_end", "tell_end()", [](const ScriptCall&) {
        ScriptEvents::instance().publishEnd("over", "the player has ended");
        return ScriptValues{};
    });
    EXPECT_EQ(registered + over, "");
    ScriptEvents::instance().nameSignals({"one", "two", "over", "one"});
    return signals;
}

TEST_F(ScriptTest, KeepsSignalsUntilAWaitHasPassedThem) {
    EXPECT_EQ(
        resultOf(tell("tell('one', 1) tell('one', 2) tell('two', 3) tell('one', 4)\n"
                      "local a = wait_signal('one', 0, {n = 2}) local b = wait_signal('o', 0)\n"
                      "return {a.n, b.n, wait_signal('two', 0) == nil, "
                      "wait_signal('one', 60).n, wait_signal('one', 0) == nil}")),
        ScriptValue({2, 3, true, 4, true}));
    EXPECT_NE(errorOf("tell('one', 1) tell('two', 2) expect_signal('one', 9, {n = 1})\n"
                      "expect_signal('one', 0.01, {n = 5})")
                  .find("test:2: one n=5 did not come within 0.01 s; since the last one that was "
                        "waited for: two"),
              std::string::npos);
    EXPECT_NE(errorOf("expect_no_signal('one', 0.01)\ntell('one', 1) expect_no_signal('one', 60)")
                  .find("test:2: one came, within 60 s"),
              std::string::npos);
    // Of more than are kept the oldest are lost.
    EXPECT_EQ(resultOf("for i = 1, 1200 do tell('one', i) end return wait_signal('one', 0).n"),
              201);
    EXPECT_EQ(resultOf("for i = 1, 900 do tell('one', i) end sleep(0)\n"
                       "for i = 901, 1200 do tell('one', i) end return wait_signal('one', 0).n"),
              201);
    const auto names = resultOf("return signal_names()");
    EXPECT_EQ(std::count(names.begin(), names.end(), "one"), 1);
}

TEST_F(ScriptTest, HandlersAreCalledInWaits) {
    EXPECT_EQ(resultOf(tell("local seen = {}\n"
                            "when('one', function(signal) seen[#seen + 1] = signal.n end)\n"
                            "when('one', function() seen[#seen + 1] = 'two' end, {n = 2})\n"
                            "tell('one', 1) tell('two', 9) tell('one', 2)\n"
                            "seen[#seen + 1] = 'before' sleep(0)\n"
                            "seen[#seen + 1] = wait_signal('two', 0).n return seen")),
              ScriptValue({"before", 1, 2, "two", 9}));
    // One that waits itself, and has others called.
    EXPECT_EQ(
        resultOf(
            "local seen = {}\n"
            "when('one', function() local s = wait_signal('two', 60) seen[#seen + 1] = s.n end)\n"
            "when('two', function() seen[#seen + 1] = 'handler' end)\n"
            "tell('one', 1) tell('two', 2) wait_until(function() return seen[2] end, 60)\n"
            "return seen"),
        ScriptValue({"handler", 2}));
    EXPECT_NE(errorOf("when('one', function()\nerror('mine') end) tell('one', 1) sleep(1)")
                  .find("test:2: mine"),
              std::string::npos);
}

TEST_F(ScriptTest, AnEndIsTheEndOfWaitsUntilItIsWaitedFor) {
    const auto begin = ScriptControl::Clock::now();
    EXPECT_NE(errorOf(tell("tell('one', 1) tell_end() tell('two', 2) sleep(1000)\n"
                           "expect_no_signal('two', 1000) wait_until(function() end, 1000)\n"
                           "wait_trace('never', 1000) wait(watch('x', 'y'), 1000)\n"
                           "expect_signal('one', 1000)\n"
                           "expect_signal('two', 1000)"))
                  .find("test:5: two did not come within 1000 s: the player has ended; since"),
              std::string::npos);
    EXPECT_EQ(resultOf("tell_end() tell('two', 2) local s, why = wait_signal('two', 1000)\n"
                       "return {why, wait_signal('over', 0) ~= nil, wait_signal('two', 0).n}"),
              ScriptValue({"the player has ended", true, 2}));
    EXPECT_LT(ScriptControl::Clock::now() - begin, std::chrono::seconds(100));
}

TEST_F(ScriptTest, WaitsForStatesThatAreOrCome) {
    ScriptState video("video"), audio("audio");
    EXPECT_EQ(resultOf("return wait_state('video', 0.01)"), nullptr);
    video.set("asked for");
    audio.set("granted");
    EXPECT_EQ(resultOf("return wait_state('video asked', 0)"), "video asked for");
    EXPECT_EQ(resultOf("return wait_state('video granted', 0)"), nullptr);
    std::thread other([&] {
        while (!resultOf("return wait_state('audio free', 60)").is_string()) {
        }
        video.set("granted");
    });
    audio.set("free");
    EXPECT_EQ(resultOf("return expect_state('video granted', 60)"), "video granted");
    other.join();
    {
        ScriptState third("third");
        third.set("there");
    }
    EXPECT_EQ(resultOf("return wait_state('third', 0)"), nullptr);
}

/// A program whose loop turns while its script waits: no lock, no second thread.
TEST_F(ScriptTest, WaitsCanBeTheTurnsOfALoop) {
    int turns = 0;
    ScriptControl loop([&turns](ScriptControl::Clock::time_point) {
        if (++turns == 3)
            ScriptEvents::instance().publishSignal("one");
    });
    const auto script = SILCompileText("test", tell("return wait_signal('one', 60).name")).script;
    EXPECT_EQ(SILRun(*script, {}, loop).result, "one");
    EXPECT_EQ(turns, 3);

    ScriptControl ending([&ending](ScriptControl::Clock::time_point) { ending.stop(); });
    EXPECT_EQ(SILRun(*script, {}, ending).end, End::Stopped);
    ScriptControl failing([](ScriptControl::Clock::time_point) { throw ScriptError("no more"); });
    EXPECT_NE(SILRun(*script, {}, failing).error.find("no more"), std::string::npos);
}

TEST_F(ScriptTest, AWatchGivesItsPlaceToTheNext) {
    EXPECT_EQ(resultOf("local a, b = watch('trace', 'x'), watch('trace', 'here')\n"
                       "forget(a) local c = watch('trace', 'elsewhere') shell('m_sleep 0')\n"
                       "forget(b) local d = watch('trace', 'here')\n"
                       "return {a, b, c, d, pcall(wait, 3, 0)}"),
              ScriptValue({1, 2, 1, 2, false, "test:4: there is no watch 3: watch gives one"}));
}

TEST_F(ScriptTest, IsStoppedWhateverItDoes) {
    struct Case {
        const char* what;
        const char* text;
    };
    static std::atomic<bool> isThere{false};
    static const auto registered = registerScriptCommand("here", "here()", [](const ScriptCall&) {
        isThere = true;
        return ScriptValues{};
    });
    EXPECT_EQ(registered, "");
    for (const auto& [what, text] : std::vector<Case>{
             {"computes", "here() while true do end"},
             {"catches", "here() while true do pcall(function() while true do end end) end"},
             {"sleeps", "here() sleep(1e9)"},
             {"catches its sleep", "here() while true do pcall(sleep, math.huge) end"},
             {"waits for a trace", "here() wait_trace('never', 1000)"},
             {"waits for a state", "wait_until(here, 1000)"},
             {"matches", "here() local x = ('a'):rep(5000):find(('.-'):rep(50) .. 'b')"},
             {"sorts", "local t = {} for i = 1, 9999 do t[i] = i % 7 end here() while true do "
                       "table.sort(t) end"},
             {"runs commands", "here() while true do shell('m_echo x') end"},
             {"sleeps in a command", "here() shell('m_sleep 1000')"},
         }) {
        isThere = false;
        const auto path = write(text);
        const auto script = SILCompile(path).script;
        ASSERT_TRUE(script);
        const auto start = ScriptRuns::instance().start(*script, {});
        ASSERT_EQ(start.error, "");
        EXPECT_TRUE(waitUntil([] { return isThere.load(); })) << what;
        EXPECT_TRUE(ScriptRuns::instance().stop(start.number, std::chrono::seconds(20)));
        const auto ended = ScriptRuns::instance().list().back();
        EXPECT_EQ(ended.end.rfind("stopped: " + path + ":1: stopped", 0), 0U)
            << what << ": " << ended.end;
    }
    control.stop();
    EXPECT_EQ(run("return 1").end, End::Stopped);
}

/// Start, stop, list and end meet in any order; for the thread sanitizer.
TEST_F(ScriptTest, StartsAndStopsRace) {
    const auto path = write("local n = ... for i = 1, n do sleep(0.0001) log('x') end");
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 3; ++thread)
        threads.emplace_back([&, thread] {
            for (int i = 0; i < 15; ++i) {
                const auto start = ScriptRuns::instance().start(*SILCompile(path).script, {i % 4});
                if (thread == 1)
                    ScriptRuns::instance().stopAll(std::chrono::milliseconds(i % 3));
                ScriptRuns::instance().stop(start.number, std::chrono::seconds(20));
                ScriptRuns::instance().list();
                ZANT_TRACE(unit, TRACELEVEL_ERROR, "line\n");
            }
        });
    for (auto& thread : threads)
        thread.join();
    ScriptRuns::instance().stopAll(std::chrono::seconds(20));
    const auto scripts = ScriptRuns::instance().list();
    EXPECT_LE(scripts.size(), ScriptRuns::mostEnded + ScriptRuns::mostRunning);
    for (const auto& script : scripts)
        EXPECT_FALSE(script.runs);
}

TEST_F(ScriptTest, TheShellStartsListsAndStops) {
    takeSyslog();
    screen.take();
    const auto path = write("shell('m_script ' .. ...) sleep(1000)", "first.lua");
    const auto second =
        write("local me = ... shell('m_scriptstop ' .. me) error('not reached')", "second.lua");
    const auto third = write("\nerror('its end')", "third.lua");
    EXPECT_EQ(command("m_script " + path + " " + third), 0);
    EXPECT_NE(screen.take().find("started: " + path), std::string::npos);
    EXPECT_TRUE(waitUntil([&] { return !scriptOf(third).end.empty(); }));
    EXPECT_EQ(scriptOf(third).end, "failed: " + third + ":2: its end");
    const auto log = takeSyslog();
    ASSERT_EQ(log.size(), 1U);
    EXPECT_NE(log[0].second.find(third + ":2: its end"), std::string::npos) << log[0].second;
    const auto sum = write("return ... + 0.25", "sum.lua");
    EXPECT_EQ(command("m_script " + sum + " 0.5"), 0);
    EXPECT_TRUE(waitUntil([&] { return !scriptOf(sum).end.empty(); }));
    EXPECT_EQ(scriptOf(sum).end, "finished: 0.75");
    EXPECT_EQ(command("m_scriptlist"), 0);
    const auto list = screen.take();
    EXPECT_NE(list.find(path + " | runs\n"), std::string::npos) << list;
    EXPECT_NE(list.find(third + ":2: its end\n"), std::string::npos) << list;
    // One that stops itself, by the number that is its own.
    EXPECT_EQ(command("m_script " + second + " " + std::to_string(scriptOf(sum).number + 1)), 0);
    EXPECT_TRUE(waitUntil([&] { return !scriptOf(second).end.empty(); }));
    EXPECT_EQ(scriptOf(second).end, "stopped: " + second + ":1: stopped");
    screen.take();
    EXPECT_EQ(command("m_scriptstop " + std::to_string(scriptOf(path).number)), 0);
    EXPECT_NE(screen.take().find(" stopped: " + path + ":1: stopped\n"), std::string::npos);

    EXPECT_EQ(command("m_script"), badCommandParam);
    EXPECT_EQ(command("m_scriptstop 77777"), badCommandParam);
    EXPECT_EQ(command("m_scriptstop x"), badCommandParam);
    EXPECT_EQ(command("m_script " + write("x =\n=")), badCommandParam);
    const auto errors = screen.take();
    for (const char* const said : {"Parameter 1 (file) is missing", "there is no script 77777",
                                   "is not a number", "/test.lua:2: unexpected symbol"})
        EXPECT_NE(errors.find(said), std::string::npos) << said << " in " << errors;
    EXPECT_EQ(command("m_scripthelp"), 0);
    const auto help = screen.take();
    for (const char* const known :
         {"sleep(seconds)\tWaits", "wait_trace(text, timeout)\t", "shell(line)\t"})
        EXPECT_NE(help.find(known), std::string::npos) << help;
    EXPECT_EQ(help.find("\n\n"), std::string::npos) << help; // of what is not for scripts

    const auto sleeper = write("sleep(1000)", "sleeper.lua");
    for (size_t i = 0; i < ScriptRuns::mostRunning; ++i)
        EXPECT_EQ(command("m_script " + sleeper), 0);
    EXPECT_EQ(command("m_script " + sleeper), badCommandParam);
    EXPECT_NE(screen.take().find("8 scripts run: stop one"), std::string::npos);
    EXPECT_EQ(command("m_scriptstop"), 0);
    for (const auto& info : ScriptRuns::instance().list())
        EXPECT_FALSE(info.runs);
    {
        const support::NoThreads none;
        EXPECT_EQ(command("m_script " + sleeper), badCommandParam);
    }
    EXPECT_NE(screen.take().find("no thread can be started"), std::string::npos);
    // All threads are stopped at once, as at the end of a process.
    EXPECT_EQ(command("m_script " + sleeper), 0);
    CThreadObject::StopAllThreads();
    CThreadObject::Start();
    EXPECT_FALSE(ScriptRuns::instance().list().back().runs);
}

/// A command that goes on until it is let go, whatever is asked of its script.
std::promise<void>& deaf() {
    static std::promise<void> letGo;
    static const auto registered = registerScriptCommand("be_deaf", "be_deaf()", [](const auto&) {
        isDeaf = true;
        letGo.get_future().wait();
        return ScriptValues{};
    });
    EXPECT_EQ(registered, "");
    return letGo;
}

TEST_F(ScriptTest, OneThatDoesNotStopIsNamed) {
    auto& letGo = deaf();
    const auto path = write("be_deaf()", "deaf.lua");
    EXPECT_EQ(command("m_script " + path), 0);
    EXPECT_TRUE(waitUntil([] { return isDeaf.load(); }));
    const auto number = scriptOf(path).number;
    screen.take();
    EXPECT_EQ(command("m_scriptstop"), 0);
    const auto still = screen.take();
    EXPECT_NE(still.find(" | " + path + " | runs\n"), std::string::npos) << still;
    EXPECT_EQ(command("m_scriptstop " + std::to_string(number)), 0);
    EXPECT_NE(screen.take().find(" ends when its command does\n"), std::string::npos);

    // Whoever waits for it is asked to end itself, and need not wait on.
    class Stopper : public CThreadObject {
    public:
        explicit Stopper(int its) : m_number(its) {}
        ~Stopper() override { StopThreadAndWait(); }
        void ThreadWorkFunction() override {
            ScriptRuns::instance().stop(m_number, std::chrono::hours(1));
        }

    private:
        const int m_number;
    };
    {
        Stopper stopper(number);
        EXPECT_EQ(stopper.StartThread("stopper", 0, 0), 0);
    }
    letGo.set_value();
    EXPECT_TRUE(waitUntil([&] { return !scriptOf(path).runs; }));
}

TEST_F(ScriptTest, SaysHowAScriptEnded) {
    EXPECT_EQ(describeEnd({End::Finished, "", nullptr}), "finished");
    EXPECT_EQ(describeEnd({End::Finished, "", {{"a", {1, "x"}}}}), R"(finished: {"a":[1,"x"]})");
    EXPECT_EQ(describeEnd({End::Finished, "", "\xff"}), "finished: \"\xef\xbf\xbd\"");
    EXPECT_EQ(describeEnd({End::TooLong, "f:1: why", nullptr}), "failed: f:1: why");
}

/// The process ends while scripts compute, wait, log and are in a command.
TEST_F(ScriptTest, TheEndOfTheProcessIsTheirsInOrder) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto endWithScripts = [this] {
        const auto busy =
            write("while true do pcall(function() while true do end end) end", "a.lua");
        const auto waits = write("while true do wait_trace('never', 1000) end", "b.lua");
        const auto logs = write("while true do print(state('process').id) sleep(0) end", "c.lua");
        const auto sleeps = write("while true do shell('m_sleep 1000') end", "d.lua");
        for (const auto& path : {busy, waits, logs, sleeps, busy, logs})
            ScriptRuns::instance().start(*SILCompile(path).script, {});
        std::atexit([] { // behind the scripts' own, which was registered later
            const auto refused = ScriptRuns::instance().start(CompiledScript("x", ""), {});
            for (const auto& info : ScriptRuns::instance().list())
                if (info.runs || refused.error != "the process ends")
                    _Exit(3);
        });
        AddScriptMshellCmds();
        std::exit(7);
    };
    EXPECT_EXIT(endWithScripts(), testing::ExitedWithCode(7), "");
}

TEST_F(ScriptTest, AConfigurationFileStartsOne) {
    const auto path = write("sys_string.FROM = ... ", "started.lua");
    const auto config = write("MSHELL = m_script " + path + " configuration\n", "start.cfg");
    EXPECT_EQ(CCfgFile().ReadCfgfile(config.c_str()), 0);
    EXPECT_TRUE(waitUntil([&] { return scriptOf(path).end == "finished"; }));
    EXPECT_EQ(sysVarStringMap.Get("FROM"), std::string("configuration"));
}

TEST_F(ScriptTest, OnlyTrustedFilesAreRead) {
    const auto path = write("return 1");
    EXPECT_EQ(SILCompile(path).error, "");
    const auto hidden = write("return 1", ".hidden.lua");
    std::filesystem::create_symlink(path, folder / "link.lua");
    for (const auto& [file, why] : std::map<std::string, std::string>{
             {"", "no absolute path"},
             {"test.lua", "no absolute path"},
             {folder.string() + "/", "no absolute path"},
             {hidden, "hidden"},
             {folder.string() + "/../x.lua", "hidden"},
             {folder.string() + "/nosuch.lua", "there is no such file"},
             {folder.string() + "/nosuch/x.lua", "there is no such folder"},
             {folder.string() + "/link.lua", "is no file"},
             {"/dev/zero", "is no file"},
         })
        EXPECT_NE(SILCompile(file).error.find(why), std::string::npos)
            << file << ": " << SILCompile(file).error;
    chmod(path.c_str(), 0622);
    EXPECT_NE(SILCompile(path).error.find("may be written by others"), std::string::npos);
    chmod(path.c_str(), 0600);
    if (geteuid() == 0) {
        EXPECT_EQ(chown(path.c_str(), 12345, 12345), 0);
        EXPECT_NE(SILCompile(path).error.find("belongs to user 12345"), std::string::npos);
    }
    EXPECT_NE(SILCompile(write(std::string(70000, '-'), "long.lua")).error.find("split it"),
              std::string::npos);
}

class Worker : public CThreadObject {
public:
    ~Worker() override { StopThreadAndWait(); }
    void ThreadWorkFunction() override {
        while (!stopRequested) {
            CZantMsg msg(SIG_ID_GOTO_STANDBY);
            msg.signalPtr = ::operator new(1);
            msg.FreeSignal();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
};

/// The manual's script, as it stands there.
TEST_F(ScriptTest, TheManualsExampleRuns) {
    const std::string page = textOf(SCRIPT_PAGE);
    const std::string mark = "```lua\n";
    const auto begin = page.find(mark);
    ASSERT_NE(begin, std::string::npos);
    const auto text = page.substr(begin + mark.size(),
                                  page.find("```", begin + mark.size()) - begin - mark.size());
    const auto missing = run(text, {0.05});
    EXPECT_NE(missing.error.find("no thread 'worker' within 0.05 s"), std::string::npos);
    Worker worker;
    ASSERT_EQ(worker.StartThread("worker", 0, 0), 0);
    const auto outcome = run(text, {60});
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.result, true);
    EXPECT_NE(sysVarStringMap.Get("LAST_MESSAGE")->find("FreeSignal Signal=2"), std::string::npos);
}

} // namespace
