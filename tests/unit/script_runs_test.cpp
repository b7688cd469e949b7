// Scripts in a process: from where they are started, and how they end.

#include "script_fixture.h"

#include "config/cfg_file.h"
#include "debug/shell/command_struct.h"
#include "debug/trace/sys_vars.h"
#include "messaging/queue/zant_msg.h"
#include "messaging/thread/thread_object.h"
#include "support/no_threads.h"

#include <atomic>
#include <future>
#include <map>
#include <thread>

namespace {

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

    for (const char* const line : {"m_scriptstop 1 2", "m_scriptlist 1", "m_scripthelp log"}) {
        screen.take();
        EXPECT_EQ(command(line), badCommandParam) << line;
        EXPECT_NE(screen.take().find("ERROR: that is too much: write m_script"), std::string::npos)
            << line;
    }
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
