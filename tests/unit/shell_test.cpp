// Parsing and running of command lines, and the commands' own answers.

#include "debug/shell/command_struct.h"
#include "debug/shell/mshell.h"
#include "debug/shell/zant_dbg.h"
#include "debug/shell/zant_dbg_mshell.h"
#include "debug/shell/zant_trace_mshell.h"
#include "messaging/queue/zant_msg_queue_mshell.h"
#include "messaging/thread/thread_object_mshell.h"
#include "trace_fixture.h"

#include <algorithm>
#include <csignal>
#include <memory>
#include <vector>

// This program names units of the framework, as a host of the library does.
static const unsigned unitNamesSize = 8 * sizeof(const char*);
const char* traceUnitsStringArray[] = {"UNIT_OTHER", "TRACE_NONE", "TUNER",    "TRACE_G_SPARE1",
                                       "Tuner",      nullptr,      "SUBTITLE", "LAST_IS_NO_UNIT"};
const unsigned* traceUnitsStringArraySizePtr = &unitNamesSize;

namespace {

void registerAll() {
    static const bool registered = [] {
        AddZantTraceMshellCmds();
        AddZantDbgMshellCmds();
        AddZantMsgQueueMshellCmds();
        AddThreadObjectMshellCmds();
        return true;
    }();
    static_cast<void>(registered);
}

class ShellTest : public TraceTest {
protected:
    ShellTest() { registerAll(); }

    std::unique_ptr<CommandStruct> parse(const std::string& line, int32_t expected = 0) {
        auto command = std::make_unique<CommandStruct>();
        mshell.InitCommandStruct(command.get());
        EXPECT_EQ(mshell.ParseMshellCmd(line.c_str(), command.get()), expected) << line;
        return command;
    }
};

std::string times(int count, const std::string& text) {
    std::string all;
    while (count-- > 0)
        all += text;
    return all;
}

TEST_F(ShellTest, ReadsNumbersAsTheSetDoes) {
    struct Case {
        const char* token;
        bool isNumber;
        int32_t value;
    };
    const std::vector<Case> cases = {
        {"3", true, 3},
        {"-7", true, -7},
        {"+7", true, 7},
        {"0x1F", true, 31},
        {"0xffffffff", true, INT32_MAX},
        {"99999999999", true, INT32_MAX},
        {"-99999999999", true, INT32_MIN},
        {"0X1F", false, 0},
        {"0x", false, 0},
        {"-0x10", false, 0},
        {"12abc", false, 0},
        {"1.5", false, 0},
        {"\xff\xfe", false, 0},
    };
    for (const auto& each : cases) {
        const auto command = parse(std::string("m_x ") + each.token);
        ASSERT_EQ(command->paramCount, 1) << each.token;
        EXPECT_EQ(command->params[0].type,
                  each.isNumber ? CommandParam::number : CommandParam::text)
            << each.token;
        if (each.isNumber) {
            EXPECT_EQ(command->params[0].value, each.value) << each.token;
        }
        EXPECT_EQ(command->params[0].string, each.token);
    }
}

TEST_F(ShellTest, SplitsAtSeparatorsAndAppliesDel) {
    const auto command = parse("\t,m_traceon,,3 \r\n0x1F,");
    EXPECT_EQ(command->name, "m_traceon");
    ASSERT_EQ(command->paramCount, 2);
    EXPECT_EQ(command->params[1].value, 31);

    const auto deleted = parse("\x7f"
                               "abc\x7f"
                               "d\x7f\x7f\x7f\x7f\x7fm_echo");
    EXPECT_EQ(deleted->lastCmdInputString, "m_echo");
    EXPECT_EQ(parse(" ,\t\n")->name, "");
}

TEST_F(ShellTest, RefusesWhatDoesNotFit) {
    EXPECT_EQ(parse("m_x" + times(256, " 1"))->paramCount, 256);
    EXPECT_STREQ(parse("m_x" + times(257, " 1"), -1703)->errorText, "SetCommandParam error");
    EXPECT_EQ(screen.take(), "Invalid parameter count 256\n");

    EXPECT_EQ(parse("m_x " + times(511, "a"))->paramCount, 1);
    EXPECT_STREQ(parse("m_x " + times(512, "a"), -1703)->errorText, "split string error");
    EXPECT_STREQ(parse(times(512, "a"), -1703)->errorText, "split string error");

    EXPECT_EQ(mshell.ParseMshellCmd(nullptr, parse("").get()), -1703);
    EXPECT_EQ(mshell.ParseMshellCmd("m_x", nullptr), -1703);
    EXPECT_EQ(mshell.SetCommandParam(nullptr, "x"), -1703);
    EXPECT_EQ(mshell.Convert_Atoi("1", nullptr), -1703);
    EXPECT_EQ(mshell.ProcessMshellCmd(nullptr), -1703);
}

/// What each line answers: result, and text that is in its output. Calls are traced, with what they
/// were given; the entry tells what they take.
TEST_F(ShellTest, AnswersEveryCommand) {
    zantDbg.AddZantDbgCmd(9001, [](unsigned id) { return id == 9001 ? 0 : 1; });
    zantDbg.AddZantDbgCmd(9002, [](unsigned) { return 7; });
    struct Case {
        const char* line;
        int32_t result;
        const char* output;
        const char* handler = nullptr; ///< behind MshellCmd
        int taken = 0;
    };
    const std::vector<Case> cases = {
        {"", -1700, "-- ERROR: Unknown mshell command: \n"},
        {"nosuch 1", -1700, "-- ERROR: Unknown mshell command: nosuch\n"},
        {"M_ECHO x", -1700, "Unknown mshell command: M_ECHO\n"},
        {"m_dumplastcmd", -1700, "Unknown mshell command: m_dumplastcmd\n"},
        {"m_echo a,  b\tc", 0, "a,  b\tc\n"},
        {"deinit", 0, "Mshell Deinit called\n"},
        {"m_sleep", -1703, "ERROR: Parameter 1 (nr of seconds) is missing\n"},
        {"m_sleep x", -1703, "ERROR: Parameter 1 (nr of seconds) is not a number\n"},
        {"m_sleep -5", 0, ""},
        {"m_help m_sleep", 0, "m_help (m_sleep)\nm_sleep <nr of seconds>\n"},
        {"m_help groups", 0, "--- List of mshell command groups: \ndbg\nmshell\nqueue\n"},
        {"m_help thread", 0, "m_threadlist [thread addr | thread id]\t\tLists all"},
        {"m_help trace_", -1703, "group requested: trace_\n"},
        {"m_help list", -1703, "Available CmdName = m_queuelist Group = queue\n"},
        {"m_traceon 7", -1703, "ERROR: Not enough parameters\n"},
        {"m_traceon nosuch 10", -1703,
         "ERROR: Parameter 1 (trace unit) is not a number or a valid name\n"},
        {"m_traceon 400 10", -1703, "ERROR: Parameter 1 (trace unit)"},
        {"m_traceon 7 tracelevel_info", 0,
         "Trace switched on to level 20 (TRACELEVEL_INFO) for unit 7 (", "SetTraceOn", 2},
        {"m_tracestate 7", 0, "state = 20 (TRACELEVEL_INFO)\n"},
        {"m_traceoff 7", 0, "Trace switched off for unit 7 (", "SetTraceOff", 1},
        {"m_traceoff", -1703, "ERROR: Parameter 1 (trace unit) is missing\n"},
        {"m_tracestate 7", 0, "state = 70 (TRACELEVEL_NO_TRACE)\n"},
        {"m_tracestate", 0, "Trace unit   2 TUNER"},
        {"m_tracestate -1", -1703, "ERROR: Parameter 1 (trace unit)", "TraceState", 1},
        {"m_traceonall", -1703, "ERROR: Parameter 1 (trace level) is missing\n"},
        {"m_traceonall 30", 0, "Trace switched on for all units to TRACELEVEL_WARNING\n",
         "SetTraceOnAll", 1},
        {"m_tracestate 7", 0, "state = 30 (TRACELEVEL_WARNING)\n"},
        {"m_traceoffall", 0, "All traces switched off\n", "SetTraceOffAll", 0},
        {"m_tracestate 7", 0, "state = 70 (TRACELEVEL_NO_TRACE)\n"},
        {"m_timestampson", 0, "Trace timestamps switched on\n", "TimestampsOn", 0},
        {"m_timestampsoff 1", 0, "Trace timestamps switched off\n", "TimestampsOff", 0},
        {"m_tracedirectprintmode", -1703, "ERROR: Parameter 1 (DirectPrintMode) is missing\n"},
        {"m_tracedirectprintmode on", -1703,
         "ERROR: Parameter 1 (DirectPrintMode) is not a number\n"},
        {"m_tracedirectprintmode 2", 0, "DirectPrintMode switched on\n", "TraceDirectPrintMode", 1},
        {"m_traceusesyslog x", -1703, "ERROR: Parameter 1 (Use syslog) is not a number\n"},
        {"m_traceusesyslog 1", 0, "Using syslog\n", "TraceUseSyslog", 1},
        {"m_traceusesyslog 0", 0, "Not using syslog\n"},
        {"m_tracewithcolors 0", 0, "TraceWithColors switched off\n", "TraceWithColors", 1},
        {"m_tracelogfilemaxsize -1", -1703, "is negative\n"},
        {"m_tracelogfilemaxsize 100000000", 0, "TraceLogfileMaxSize set to 100000000\n",
         "TraceLogfileMaxSize", 1},
        {"m_stoptracingtoscreen", 0, "Stopping tracing to screen !!!\n", "StopTracingToScreen", 0},
        {"m_starttracingtoscreen", 0, "Starting tracing to screen !!!\n", "StartTracingToScreen",
         0},
        {"m_dbgcmd", -1703, "ERROR: Parameter 1 (command id) is missing\n"},
        {"m_dbgcmd five", -1703, "ERROR: Parameter 1 (command id) is not a number\n"},
        {"m_dbgcmd 9001", 0, "ZantDbgCmd executed - Id = 9001, return-code = 0\n", "DbgCmd", 1},
        {"m_dbgcmd 9002", 7, "return-code = 7\n"},
        {"m_dbgcmd 9003", -2500, "return-code = -2500\n"},
        {"m_ls -d /", 0, " /\n", "Ls", 0},
        {"m_ls /no/such/folder 2>/dev/null", -1, "MshellCmdLs - FAILED - \n"},
        {"m_appendlinetoetcpreinit", -1703, "MshellCmdAppendLineToEtcPreinit - FAILED \n",
         "AppendLineToEtcPreinit", 0},
        {"m_appendlinetoetcpreinit /no/such 2>/dev/null", -1, "Preinit - FAILED \n"},
        {"m_deleteetcpreinit", -1703, "MshellCmdDeleteEtcPreinit - FAILED \n", "DeleteEtcPreinit",
         0},
        {"m_queuelist", 0, "List of queues\n"},
        {"m_dumpqueue x", -1703, "ERROR: Parameter 1 is not a number\n"},
        {"m_threadlist 1", 0, "List of thread objects\n"},
    };
    for (const auto& each : cases) {
        zantTrace.SetTraceOn(TRACEUNIT_SHELL_COMMANDS, TRACELEVEL_DEBUG);
        zantTrace.StartTracingToScreen();
        screen.take();
        EXPECT_EQ(mshell.ProcessMshellCmd(each.line), each.result) << each.line;
        const std::string output = screen.take();
        EXPECT_NE(output.find(each.output), std::string::npos) << each.line << ": " << output;
        if (!each.handler)
            continue;
        const std::string line = each.line;
        const auto given = std::to_string(std::count(line.begin(), line.end(), ' '));
        for (const auto& traced : {"MshellCmd" + std::string(each.handler) + " called\n",
                                   "ParamCount = " + given + "\n"})
            EXPECT_NE(output.find(traced), std::string::npos) << output;
        EXPECT_EQ(mshell.GetMshellEntry(line.substr(0, line.find(' ')))->paramCount, each.taken);
    }
    mshell.ProcessMshellCmd("m_echo");
    EXPECT_EQ(screen.take(), "");
}

/// Commands run on threads that take no signals.
TEST_F(ShellTest, WhatACommandRunsCanBeInterrupted) {
    sigset_t all{}, before{};
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int32_t result =
        mshell.ProcessMshellCmd("m_ls -d / && grep -q '^SigBlk:.0*$' /proc/self/status");
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(result, 0);
}

TEST_F(ShellTest, UnitsBearTheNamesOfTheHost) {
    const std::pair<unsigned, const char*> names[] = {
        {2, "TUNER"}, {6, "SUBTITLE"}, {5, "TRACE_NONE"}, {7, "UNIT_OTHER"}, {~0U, "UNIT_OTHER"}};
    for (const auto& [unitNumber, name] : names)
        EXPECT_STREQ(zantTrace.GetTraceUnitNamePtr(unitNumber), name);
    const std::pair<const char*, unsigned> numbers[] = {
        {"tuner", 2}, {"subTITLE", 6}, {"LAST_IS_NO_UNIT", 0}, {nullptr, 0}};
    for (const auto& [name, unitNumber] : numbers)
        EXPECT_EQ(zantTrace.GetTraceUnitNrByName(name), unitNumber);

    EXPECT_EQ(zantTrace.SetTraceOn("UNIT_OTHER", "TRACELEVEL_INFO"), -1600);
    EXPECT_EQ(zantTrace.SetTraceOn("MISSING", "TRACELEVEL_INFO"), -1600);
    EXPECT_EQ(zantTrace.SetTraceOn("tuner", "tracelevel_info_old"), 0);
    EXPECT_EQ(zantTrace.SetTraceOn("subtitle", "no such level"), 0);
    screen.take();
    zantTrace.PrintAllTraceActivationStates();
    const std::string listing = screen.take();
    EXPECT_EQ(listing.find("Trace unit   2 TUNER                  - Trace activation state = 10 "
                           "(TRACELEVEL_DEBUG)\n"
                           "Trace unit   4 Tuner                  - Trace activation state = 30 "
                           "(TRACELEVEL_WARNING)\n"),
              0U);
    EXPECT_NE(listing.find("Trace unit   6 SUBTITLE               - Trace activation state = 0 "
                           "(TRACELEVEL_ALL)\n"
                           "Trace unit   7 UNIT_OTHER             - Trace activation state = 30 "),
              std::string::npos);
    EXPECT_EQ(listing.find("SPARE"), std::string::npos);
}

TEST_F(ShellTest, ListsEveryCommandOnceInOrder) {
    mshell.AddMshellInternalMshellCmds();
    mshell.ProcessMshellCmd("m_help");
    const std::string help = screen.take();
    EXPECT_EQ(help.find("m_help ["), help.rfind("m_help ["));
    EXPECT_LT(help.find("deinit"), help.find("m_appendline"));
    EXPECT_LT(help.find("m_tracestate"), help.find("m_tracewithcolors"));
    EXPECT_EQ(help.find("m_dumplastcmd"), std::string::npos);
}

TEST_F(ShellTest, SurvivesHandlersThatAreMissingOrThrow) {
    CMshell shell;
    shell.AddMshellCmd(0, "none", "g", nullptr, nullptr, nullptr, true);
    shell.AddMshellCmd(
        0, "throws", nullptr, "", [](CommandStruct*) -> int { throw std::bad_alloc(); }, nullptr,
        true);
    shell.AddMshellCmd(
        0, "first", "g", "", [](CommandStruct*) { return 1; }, nullptr, true);
    shell.AddMshellCmd(
        0, "first", "g", "", [](CommandStruct*) { return 2; }, nullptr, true);
    EXPECT_LT(shell.ProcessMshellCmd("none"), 0);
    EXPECT_LT(shell.ProcessMshellCmd("throws"), 0);
    EXPECT_NE(screen.take().find("Command throws failed"), std::string::npos);
    shell.AddMshellCmd(
        0, "odd", nullptr, "", [](CommandStruct*) -> int { throw 1; }, nullptr, true);
    EXPECT_LT(shell.ProcessMshellCmd("odd"), 0);
    EXPECT_EQ(shell.ProcessMshellCmd("first"), 1);
}

TEST_F(ShellTest, DebugCommandsKeepTheFirstFunction) {
    CZantDbg commands;
    EXPECT_EQ(commands.AddZantDbgCmd(5, [](unsigned id) { return static_cast<int>(id); }), 0);
    commands.AddZantDbgCmd(5, [](unsigned) { return -1; });
    EXPECT_EQ(commands.AddZantDbgCmd(6, nullptr), 0) << "it is only traced";
    EXPECT_EQ(commands.ExecuteZantDbgCmd(5), 5);
    EXPECT_EQ(commands.ExecuteZantDbgCmd(6), -2500);
    screen.take();
    DisplayMallocInfo();
    EXPECT_NE(screen.take().find("$$$ MALLOC INFO (uordblks): max ="), std::string::npos);
}

} // namespace
