// A build without the script language: all says so.

#include "debug/shell/command_struct.h"
#include "debug/shell/mshell.h"
#include "script/script.h"
#include "script/script_mshell.h"
#include "trace_fixture.h"

#include <filesystem>
#include <fstream>
#include <sys/stat.h>

class NoScriptTest : public TraceTest {};

TEST_F(NoScriptTest, SaysThatThereIsNone) {
    AddScriptMshellCmds();
    screen.take();
    const std::string path = "/tmp/no_script_" + std::to_string(getpid()) + ".lua";
    std::ofstream(path) << "return 1\n";
    chmod(path.c_str(), 0600);
    EXPECT_EQ(mshell.ProcessMshellCmd(("m_script " + path).c_str()), badCommandParam);
    std::filesystem::remove(path);
    const auto said = screen.take();
    EXPECT_NE(said.find(path + ": this build has no script language"), std::string::npos) << said;
    EXPECT_EQ(mshell.ProcessMshellCmd("m_scriptlist"), 0);

    ScriptControl control;
    const auto outcome = SILRun(CompiledScript("x", ""), {}, control);
    EXPECT_EQ(outcome.end, ScriptOutcome::End::Failed);
    EXPECT_NE(outcome.error.find("no script language"), std::string::npos);
}
