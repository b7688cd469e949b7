// The script language: what it offers, and what it keeps scripts from.

#include "script_fixture.h"

#include "debug/trace/sys_vars.h"
#include "messaging/observer/observable_callback_function.h"
#include "messaging/queue/zant_msg.h"
#include "script/script_events.h"
#include "util/socket_comm.h"

#include <atomic>
#include <functional>
#include <lua.hpp>
#include <map>
#include <thread>

namespace {

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
        {"\nwatch('signal', 'NOPE')",
         "test:2: watch: no signal here has 'NOPE' in its name: signal_names() lists"},
        {"watch('trac', 'x')",
         "test:1: watch: there are no events of kind 'trac': write trace, state or signal"},
        {"when(7, print)", "test:1: bad argument #1 to 'when' (string expected, got number)"},
        {"\nwhen('STANDBY', 7)", "test:2: bad argument #2 to 'when' (function expected"},
        {"wait_signal('STANDBY', 1, 7)",
         "test:1: bad argument #3 to 'wait_signal' (table expected"},
        {"\nexpect_signal('STANDBY', 0)",
         "test:2: STANDBY did not come within 0 s; since the last"},
        {"\nexpect_state('no such', 0)",
         "test:2: the state 'no such' did not come within 0 s: there is no state"},
        {"\nwait_until(1, 2)", "test:2: bad argument #1 to 'wait_until' (function expected"},
        {"wait_until(print)", "test:1: bad argument #2 to 'wait_until' (number expected"},
        {"log(print)", "test:1: log: a value of type function cannot be handed over"},
        {"log({print})", "a value of type function"},
        {"t = {} t[1] = t log(t)", "tables more than 32 deep"},
        {"log({[1.5] = 1})", "a table whose keys are neither"},
        {"t = {} for i = 1, 30000 do t[i] = i end log(t)", "more than 20000 values"},
        {"\nreturn print", "what it returns: a value of type function"},
        {"return key.okk", "test:1: no key has the name 'okk': key_names() lists them"},
        {"\nkey.ok = 1", "test:2: the codes of keys are fixed"},
        {"forget(-1)", "test:1: forget: there is no watch 0: watch gives one"},
        {"return key[1.5]", "test:1: no key has the name '1.5': key_names() lists them"},
        {"sys_int.x = 1.5", "test:1: sys_int.x takes a whole number of 32 bits, or nil"},
        {"sys_int.x = 2^63", "test:1: sys_int.x takes a whole number of 32 bits, or nil"},
        {"sys_int.x = 'y'", "test:1: sys_int.x takes a whole number of 32 bits, or nil"},
        {"\nsys_int.x = 1 << 31", "test:2: sys_int.x takes a whole number of 32 bits, or nil"},
        {"sys_string.x = 7", "test:1: sys_string.x takes a text of at most 4096 bytes, or nil"},
        {"sys_string.x = ('n'):rep(4097)", "test:1: sys_string.x takes a text of at most 4096"},
        {"sys_string[('n'):rep(65)] = ''", "test:1: a system variable's name is a text of at most"},
        {"return sys_int[7]", "test:1: a system variable's name is a text of at most 64 bytes"},
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
        {"\nlocal function f() return f() + 1 end\nreturn f()", "test:2: not enough memory"},
        {"local function f() return pcall(f) end assert(f())\nerror('deep')", "test:"},
        {"local t = {} for i = 1, 200 do t = setmetatable({}, {__index = t}) end "
         "local function f(x) return f(tostring(setmetatable({}, {__tostring = f}))) end f()",
         "overflow"},
        {"\nlocal x = ('x'):rep(1 << 40)", "test:2: resulting string too large"},
        {"\nlocal x = ('x'):rep(1 << 25)", "test:2: not enough memory"},
        {"local s = 'x'\nwhile true do s = s .. s end", "test:2: not enough memory"},
        {"local t = {}\nwhile true do\nt[#t + 1] = {} end", "test:3: not enough memory"},
        {"\nlocal s = '' pcall(string.rep, 'x', 1 << 25)\nerror('other')", "test:3: other"},
        {"\nlocal t, u = {}, ('x'):rep(2 << 20)\nfor i = 1, 9e9 do t[i] = i end",
         "test:3: not enough memory"},
    };
    for (const auto& [text, error] : refused)
        EXPECT_NE(errorOf(text).find(error), std::string::npos) << text << ": " << errorOf(text);
    EXPECT_EQ(resultOf("return #(''):rep(1 << 62)"), 0);
    EXPECT_EQ(errorOf("local x <close> = setmetatable({}, {__close = function() log('closed') end})"
                      "\nlocal s = ('x'):rep(1 << 25)"),
              "test:2: not enough memory");
    EXPECT_NE(screen.take().find("closed"), std::string::npos);
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
             "local x <close> = setmetatable({}, {__close = function() while true do end end}) "
             "error('x')",
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
    quick.steps = 500000;
    const std::string text = "local s = ('x'):rep(100000) while true do s:upper() ";
    for (const char* const command : {"", "sleep(0) "}) { // what is between two commands adds up
        const auto outcome = run(text + command + "end", {}, quick);
        EXPECT_EQ(outcome.end, End::TooLong);
        EXPECT_NE(outcome.error.find("test:1: it has computed for longer"), std::string::npos)
            << outcome.error;
    }
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
    EXPECT_EQ(resultOf("sys_int.counter = nil sys_int.nosuch = nil sys_string.OTHER = 'y'\n"
                       "sys_string.OTHER = nil return tostring(sys_int.counter)"),
              "nil");
    EXPECT_FALSE(sysVarIntMap.Get("counter") || sysVarStringMap.Get("OTHER"));
    EXPECT_EQ(resultOf("for i = 1, 3000 do sys_int['v' .. i] = 1 sys_int['v' .. i] = nil end"),
              nullptr);
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
    // Nothing of it steers a terminal.
    EXPECT_EQ(resultOf("log('a\\rb\\27[2J\\0c\\127\\td\\xc3\\xa4\\xc2\\x9b\\xc2\\xa0')"), nullptr);
    EXPECT_EQ(screen.take(), "script test: a?b?[2J?c?\td\xc3\xa4??\xc2\xa0\n");
    EXPECT_EQ(errorOf("error('two\\n\\27lines')"), "test:1: two\n?lines");
    EXPECT_EQ(errorOf("x = 'a\\27b\\q'").find('\x1b'), std::string::npos);
    EXPECT_EQ(SILCompileText("test", "x = 'a\x1b' = 1").error.find('\x1b'), std::string::npos);
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
    EXPECT_NE(errorOf("tell('one', 1) tell('two', 2) expect_signal('one', 0.01, {number = 1})")
                  .find("test:1: one number=1 did not come within 0.01 s: one came, and has no "
                        "'number' but n; since"),
              std::string::npos);
    EXPECT_EQ(resultOf("tell('one', 1) return select(2, wait_signal('two', 0, {number = 1}))"),
              nullptr)
        << "of it nothing is known";
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

TEST_F(ScriptTest, ASignalEndsAWaitThatHasBegun) {
    static std::atomic<bool> isThere{false};
    static const auto registered = registerScriptCommand("there", "there()", [](const ScriptCall&) {
        isThere = true;
        return ScriptValues{};
    });
    EXPECT_EQ(registered, "");
    ScriptEvents::instance().nameSignals({"late"});
    std::thread teller([] {
        EXPECT_TRUE(waitUntil([] { return isThere.load(); }));
        Delay(50); // by then it waits
        ScriptEvents::instance().publishSignal("late", [] { return ScriptValue{{"n", 7}}; });
    });
    const auto begin = ScriptControl::Clock::now();
    EXPECT_EQ(resultOf("there() return wait_signal('late', 20).n"), 7);
    EXPECT_LT(ScriptControl::Clock::now() - begin, std::chrono::seconds(20)) << "woken";
    teller.join();
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
                           "wait_trace('never', 1000) wait(watch('trace', 'y'), 1000)\n"
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
    EXPECT_NE(errorOf("expect_state('video decoder lent', 0)")
                  .find("test:1: the state 'video decoder lent' did not come within 0 s: there is "
                        "video granted, audio free"),
              std::string::npos);
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

} // namespace
