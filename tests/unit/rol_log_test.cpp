// The rolling log and tracing to it, in a /tmp of this program's own.

#include "debug/log/rol_log.h"

#include "config/cfg_file_thread.h"
#include "debug/trace/sys_vars.h"
#include "support/private_tmp.h"
#include "support/wait_until.h"
#include "trace_fixture.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <vector>

namespace {

namespace fs = std::filesystem;
using support::waitUntil;

const bool hasPrivateTmp = support::makePrivateTmp();

std::string contentOf(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

class LogTest : public TraceTest {
protected:
    void SetUp() override {
        if (!hasPrivateTmp)
            GTEST_SKIP() << "no namespaces here";
        zantTrace.SetTraceWithColors(0);
        umask(022); // folders that others may write to are refused
        fs::create_directory(folder);
    }
    void TearDown() override {
        zantTrace.StopTracingToFile();
        std::error_code error;
        fs::remove_all(folder, error);
        fs::remove_all("/tmp/usb_logs", error);
    }

    const fs::path folder = "/tmp/logs";
    const fs::path log = folder / "t.log";
    const fs::path backup = folder / "t.bak";
};

TEST_F(LogTest, RotatesBeforeTheLineThatWouldNotFit) {
    struct Case {
        bool isOpen;
        long maxSize;
        std::string log;
        std::string backup;
    };
    // Each line of ten counts twelve.
    const std::vector<Case> cases = {
        {true, 34, "line 1...\nline 2...\nline 3...\n", ""},
        {true, 33, "line 3...\n", "line 1...\nline 2...\n"},
        {false, 33, "line 3...\n", "line 1...\nline 2...\n"},
        {true, 21, "line 3...\n", "line 2...\n"},
        {true, 0, "line 1...\nline 2...\nline 3...\n", ""},
        {false, 5, "line 3...\n", "line 2...\n"},
    };
    for (const auto& each : cases) {
        fs::remove_all(folder);
        fs::create_directory(folder);
        CRolLog rolLog;
        EXPECT_EQ(
            rolLog.InitLogfile("/tmp/logs", "t", "log", ".bak", each.maxSize, OPEN_MODE_DEFAULT),
            0);
        EXPECT_EQ(each.isOpen ? rolLog.OpenLogfile(true) : 0, 0);
        for (const char* const line : {"line 1...\n", "line 2...\n", "line 3...\n"})
            EXPECT_EQ(rolLog.WriteStringToLogfile(line), 0);
        EXPECT_EQ(contentOf(log), each.log) << each.maxSize;
        EXPECT_EQ(contentOf(backup), each.backup) << each.maxSize;
    }
}

TEST_F(LogTest, GoesOnWhereAnEarlierRunLeftOff) {
    std::ofstream(log) << std::string(30, 'x');
    CRolLog rolLog("/tmp/logs/", "t", 40, ".log", "bak");
    EXPECT_EQ(rolLog.WriteStringToLogfile("12345678\n"), 0);
    EXPECT_EQ(contentOf(log).size(), 39U);
    EXPECT_EQ(rolLog.WriteStringToLogfile("next\n"), 0);
    EXPECT_EQ(contentOf(log), "next\n");
    EXPECT_EQ(rolLog.DeleteLogfile(true), 0);
    EXPECT_EQ(rolLog.DeleteLogfile(true), -1003);
    EXPECT_EQ(rolLog.WriteStringToLogfile("x\n"), 0);
    EXPECT_EQ(rolLog.DeleteLogfile(true), -1003) << "there is no backup";
    // Closed after each line, unless it was opened; opening twice is no error.
    for (const bool isOpen : {false, true}) {
        EXPECT_EQ(isOpen ? rolLog.OpenLogfile(true) + rolLog.OpenLogfile(true) : 0, 0);
        EXPECT_EQ(rolLog.WriteStringToLogfile("x\n"), 0);
        fs::remove(log);
        EXPECT_EQ(rolLog.WriteStringToLogfile("y\n"), 0);
        EXPECT_EQ(fs::exists(log), !isOpen);
    }
    // An empty file is one to go on with, and another file counts from its own size.
    std::ofstream(folder / "u.log") << "";
    for (const auto& [name, lines] : {std::pair("u", 1U), std::pair("v", 3U)}) {
        EXPECT_EQ(rolLog.SetFilename("/tmp/logs", name, "log", "bak"), 0);
        for (unsigned line = 0; line < lines; ++line)
            EXPECT_EQ(rolLog.WriteStringToLogfile("12345678\n"), 0);
        EXPECT_EQ(fs::file_size(folder / (std::string(name) + ".log")), 9 * lines);
        EXPECT_FALSE(fs::exists(folder / (std::string(name) + ".bak")));
    }
}

TEST_F(LogTest, RefusesNamesAndFilesThatAreNotForLogs) {
    CRolLog rolLog;
    EXPECT_EQ(
        rolLog.InitLogfile(std::string(499, 'd').c_str(), "t", "l", "b", 0, OPEN_MODE_DEFAULT),
        -1000);
    EXPECT_EQ(
        rolLog.InitLogfile("/tmp", std::string(498, 'n').c_str(), "l", "b", 0, OPEN_MODE_DEFAULT),
        -1008);
    EXPECT_EQ(rolLog.WriteStringToLogfile("dropped"), 0);
    EXPECT_EQ(rolLog.InitLogfile(nullptr, nullptr, nullptr, nullptr, -5, OPEN_MODE_DEFAULT), 0);
    EXPECT_EQ(rolLog.GetMaxSize(), 0);

    fs::create_symlink("/tmp/elsewhere", log);
    EXPECT_EQ(rolLog.SetFilename("/tmp/logs", "t", "log", "bak"), 0);
    EXPECT_EQ(rolLog.WriteStringToLogfile("x\n"), -1001);
    EXPECT_FALSE(fs::exists("/tmp/elsewhere"));
    EXPECT_EQ(rolLog.WriteStringToLogfile("x\n"), 0); // disabled
    fs::remove(log);
    EXPECT_EQ(rolLog.SetFilename("/tmp/logs", "t", "log", "bak"), 0);
    EXPECT_EQ(rolLog.WriteStringToLogfile("x\n"), 0);
    EXPECT_EQ(contentOf(log), "x\n");
}

TEST_F(LogTest, AFullDiskAndAVanishedDirectoryEndTheLogAlone) {
    constexpr const char* disabled = "(Writing to logfile is disabled now)\n";
    ASSERT_TRUE(support::mountMemory("/tmp/logs", "size=1m"));
    zantTrace.SetTraceFileMaxSize(0);
    ASSERT_EQ(zantTrace.StartTracingToFile("/tmp/logs", "t"), 0);
    const std::string text(1800, 'x');
    std::string output;
    for (int i = 0; i < 700; ++i) {
        TraceFormattedString(unit, TRACELEVEL_ERROR, "%s\n", text.c_str());
        output += screen.take();
    }
    EXPECT_NE(output.find(std::string("WriteStringToLogfile -- Error = -1004  ") + disabled),
              std::string::npos);
    EXPECT_EQ(output.find(disabled), output.rfind(disabled));
    EXPECT_FALSE(traceSettings.tracingToFile);
    EXPECT_EQ(umount("/tmp/logs"), 0);

    zantTrace.SetTraceFileMaxSize(300);
    ASSERT_EQ(zantTrace.StartTracingToFile(), 0);
    fs::remove_all(folder);
    screen.take();
    TraceFormattedString(unit, TRACELEVEL_ERROR, "%s\n", text.c_str());
    EXPECT_NE(screen.take().find(std::string("Error = -1007  ") + disabled), std::string::npos);
    EXPECT_EQ(zantTrace.StartTracingToFile(), -1001);
    EXPECT_NE(screen.take().find("LogFile open error /tmp/logs/t.log : Error code: -1001"),
              std::string::npos);
}

TEST_F(LogTest, LinesGoToTheFileInBothModes) {
    static int infos;
    infos = 0;
    zantTrace.SetInitialInfoWhenTracingToFileStartsFunction([] { ++infos; });
    zantTrace.SetTraceFileMaxSize(0);
    ASSERT_EQ(zantTrace.StartTracingToFile("/tmp/logs", "t"), 0);
    EXPECT_EQ(zantTrace.StartTracingToFile("/tmp/other", "t"), 0); // is on already
    TraceFormattedString(unit, TRACELEVEL_ERROR, "direct\n");
    zantTrace.SetTraceModeWriteToLogfileIfDirectPrint(0);
    TraceFormattedString(unit, TRACELEVEL_ERROR, "not wanted\n");
    zantTrace.SetTraceModeDirectPrint(0);
    TraceFormattedString(unit, TRACELEVEL_ERROR, "queued\n");
    FormattedStringToStdout("listing\n");
    printPending();
    zantTrace.SetTraceModeDirectPrint(1);
    EXPECT_EQ(zantTrace.StopTracingToFile(), 0);
    EXPECT_NE(screen.take().find("CZantTrace:: LogFile closed : /tmp/logs/t.log \n"),
              std::string::npos);
    EXPECT_EQ(s_slept, 2100000U);
    ASSERT_EQ(zantTrace.StartTracingToFile(), 0);
    EXPECT_EQ(screen.take().find("failed"), std::string::npos);
    EXPECT_EQ(zantTrace.SetTraceModeWriteToLogfileIfDirectPrint(1), 0);
    zantTrace.SetInitialInfoWhenTracingToFileStartsFunction(nullptr);
    EXPECT_EQ(infos, 2);

    const std::string text = contentOf(log);
    EXPECT_EQ(text.find("--- ^^^^^^^^^^"), 0U) << text;
    EXPECT_NE(text.find(" direct\n"), std::string::npos);
    EXPECT_EQ(text.find("not wanted"), std::string::npos);
    EXPECT_NE(text.find(" queued\nlisting\n"), std::string::npos) << text;
    const size_t notice = text.find("Traces are NOT logged to this file");
    EXPECT_NE(notice, std::string::npos);
    EXPECT_GT(notice, text.find(" queued\n")) << "only where it is so";
}

// A log directory may carry commands, and this process may be root's.
TEST_F(LogTest, TakesNothingThatOthersMayHavePlanted) {
    constexpr uid_t somebody = 65534;
    const fs::path logs = "/tmp/usb_logs";
    const fs::path cfg = logs / "tracesx.cfg";
    const fs::path drive = "/mnt/share/extUSB/sda1/zantalog";
    ASSERT_TRUE(support::mountMemory("/mnt", "mode=755"));
    const auto mode = [](const fs::path& path, unsigned bits) {
        return [=] { fs::permissions(path, static_cast<fs::perms>(bits)); };
    };
    const auto owner = [](const fs::path& path) {
        return [=] { EXPECT_EQ(lchown(path.c_str(), somebody, somebody), 0); };
    };
    const auto link = [](const fs::path& path) {
        return [=] {
            fs::rename(path, path.string() + ".real");
            fs::create_symlink(path.string() + ".real", path);
        };
    };
    const auto otherLink = [&](const fs::path& path) {
        return [=] {
            link(path)();
            owner(path)();
        };
    };
    struct Case {
        std::function<void()> plant;
        std::string folder; ///< that is used
        bool isCfgRun;
        std::string why;
        bool needsRoot = false;
    };
    const Case cases[] = {
        {[] {}, logs, true, ""},
        {mode(logs, 0777), drive, true, "/tmp/usb_logs may be written by others: chmod go-w"},
        {mode(logs, 0775), drive, true, "/tmp/usb_logs may be written by others"},
        {mode(logs, 01777), drive, true, "/tmp/usb_logs may be written by others"},
        {owner(logs), drive, true, "/tmp/usb_logs belongs to user 65534", true},
        {link(logs), drive, true, "/tmp/usb_logs is a link where others may write"},
        {otherLink(logs), drive, true, "/tmp/usb_logs belongs to user 65534", true},
        {mode("/tmp", 0777), drive, true, "/tmp is not sticky"},
        {mode(cfg, 0646), logs, false, "/tmp/usb_logs/tracesx.cfg may be written by others"},
        {mode(cfg, 0664), logs, false, "/tmp/usb_logs/tracesx.cfg may be written by others"},
        {owner(cfg), logs, false, "/tmp/usb_logs/tracesx.cfg belongs to user 65534", true},
        {link(cfg), logs, false, "/tmp/usb_logs/tracesx.cfg is no file"},
        {[&] { fs::remove_all(logs); }, drive, true, ""},
        {[&] { fs::remove_all(logs), link("/mnt/share")(); }, drive, true, ""},
        {[&] { fs::remove_all(logs), mode("/mnt/share", 0777)(); }, "", false,
         "/mnt/share is not sticky"},
        {[&] { fs::remove_all(logs), owner("/mnt/share/extUSB/sda1")(); }, "", false,
         "/mnt/share/extUSB/sda1 belongs to user 65534", true},
    };
    for (const Case& each : cases) {
        if (each.needsRoot && geteuid() != 0)
            continue;
        const auto number = std::to_string(&each - cases);
        for (const fs::path& path : {logs, fs::path("/mnt/share")})
            fs::remove_all(path), fs::remove_all(path.string() + ".real");
        mode("/tmp", 01777)();
        for (const fs::path& path : {logs, drive}) {
            fs::create_directories(path);
            std::ofstream(path / "tracesx.cfg") << "MSHELL = m_echo ran " << number << '\n';
        }
        each.plant();
        EXPECT_EQ(zantTrace.CheckAndStartTracingToFile("x"), 0) << number;
        std::string output = screen.take();
        EXPECT_EQ(traceSettings.tracingToFile, !each.folder.empty()) << number;
        EXPECT_EQ(fs::exists(each.folder + "/zanttrcx.log"), !each.folder.empty()) << number;
        EXPECT_EQ(output.find("Processing cfgfile") != std::string::npos, each.isCfgRun) << number;
        EXPECT_NE(output.find(each.why), std::string::npos) << number << output;
        EXPECT_EQ(output.find(" not used: ") != std::string::npos, !each.why.empty()) << output;
        // What was handed over is through before the next.
        EXPECT_TRUE(!each.isCfgRun || waitUntil([&] {
            return (output += screen.take()).find("ran " + number + "\n") != std::string::npos;
        })) << number;
        EXPECT_EQ(zantTrace.StopTracingToFile(), 0);
    }
    umount("/mnt");
}

// Nor does a log follow or fill what somebody else has put in its place.
TEST_F(LogTest, WritesToNoFileOfOthers) {
    std::ofstream("/tmp/precious") << "own";
    const std::function<void()> plants[] = {
        [&] { fs::create_symlink("/tmp/precious", log); },
        [&] { fs::create_hard_link("/tmp/precious", log); },
        [&] {
            std::ofstream(log) << "";
            EXPECT_TRUE(geteuid() != 0 || lchown(log.c_str(), 65534, 65534) == 0);
        },
    };
    for (const auto& plant : plants) {
        if (&plant == &plants[2] && geteuid() != 0)
            continue;
        fs::remove(log);
        plant();
        CRolLog rolLog("/tmp/logs/", "t", 40, ".log", "bak");
        EXPECT_EQ(rolLog.WriteStringToLogfile("x\n"), CRolLog::openFailed);
        EXPECT_EQ(contentOf("/tmp/precious"), "own");
    }
    fs::remove("/tmp/precious");
    fs::remove(log);
    const mode_t mask = umask(0);
    CRolLog rolLog("/tmp/logs/", "t", 40, ".log", "bak");
    EXPECT_EQ(rolLog.WriteStringToLogfile("x\n"), 0);
    umask(mask);
    EXPECT_EQ(fs::status(log).permissions(), static_cast<fs::perms>(0644));
}

// Stops the configuration thread: the last that has files run.
TEST_F(LogTest, FindsItsDirectoryAndRunsTheFileThere) {
    EXPECT_EQ(zantTrace.CheckAndStartTracingToFile("x"), 0);
    EXPECT_FALSE(traceSettings.tracingToFile);

    fs::create_directory("/tmp/usb_logs");
    std::ofstream("/tmp/usb_logs/tracesx.cfg") << "MSHELL = m_echo from the file\n";
    zantTrace.SetTraceFileMaxSize(777);
    EXPECT_EQ(zantTrace.CheckAndStartTracingToFile("x"), 0);
    EXPECT_EQ(sysVarStringMap.Get("ZANTALOG_PATH"), "/tmp/usb_logs/");
    EXPECT_EQ(zantTrace.GetLogfilePath(), "/tmp/usb_logs/");
    std::string output;
    EXPECT_TRUE(waitUntil(
        [&] { return (output += screen.take()).find("from the file\n") != std::string::npos; }));
    EXPECT_NE(output.find("CZantTrace:: /tmp/usb_logs/ exists - activating tracing to file "
                          "/tmp/usb_logs/zanttrcx.log\n"),
              std::string::npos)
        << output;
    cfgFileThread.StopThreadAndWait(); // the file is through, and the limit is back
    for (int i = 0; i < 10; ++i)
        TraceFormattedString(unit, TRACELEVEL_ERROR, "%0100d\n", i);
    EXPECT_TRUE(fs::exists("/tmp/usb_logs/zanttrcx.bak"));
    EXPECT_LE(fs::file_size("/tmp/usb_logs/zanttrcx.log"), 777U);

    // That there is none is a limit as well.
    EXPECT_EQ(zantTrace.StopTracingToFile(), 0);
    zantTrace.SetTraceFileMaxSize(0);
    EXPECT_EQ(zantTrace.CheckAndStartTracingToFile("y"), 0);
    for (int i = 0; i < 10; ++i)
        TraceFormattedString(unit, TRACELEVEL_ERROR, "%0100d\n", i);
    EXPECT_GT(fs::file_size("/tmp/usb_logs/zanttrcy.log"), 1000U);
}

} // namespace
