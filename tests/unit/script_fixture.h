#ifndef SCRIPT_FIXTURE_H
#define SCRIPT_FIXTURE_H

#include "script/script.h"

#include "debug/shell/mshell.h"
#include "debug/shell/zant_trace_mshell.h"
#include "script/script_mshell.h"
#include "script/script_runs.h"
#include "state/framework_state.h"
#include "support/wait_until.h"
#include "trace_fixture.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

using support::waitUntil;
using End = ScriptOutcome::End;

inline bool registerScriptThings() {
    AddScriptMshellCmds();
    AddZantTraceMshellCmds();
    AddStateMshellCmds();
    return true;
}

/// Scripts as texts and, in a folder of the test's own, as files.
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

#endif
