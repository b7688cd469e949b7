#include "config/cfg_file.h"

#include "config/cfg_file_thread.h"
#include "config/cfg_line.h"
#include "debug/shell/command_struct.h"
#include "debug/shell/mshell.h"
#include "messaging/queue/zant_msg.h"
#include "support/wait_until.h"
#include "trace_fixture.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

namespace {

using support::waitUntil;

class CfgFileTest : public TraceTest {
protected:
    CfgFileTest() {
        zantTrace.SetTraceWithColors(0);
        std::filesystem::create_directory(folder);
    }
    ~CfgFileTest() override { std::filesystem::remove_all(folder); }

    std::string write(const std::string& text, const char* name = "test.cfg") const {
        const auto path = folder / name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    /// What the file's callbacks got, and the result.
    std::string read(const std::string& path) {
        s_seen.clear();
        const int32_t result = CCfgFile().ReadCfgfileEx(path.c_str(), note, '#', ',');
        return s_seen + std::to_string(result);
    }

    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("cfg_test_" + std::to_string(getpid()));

private:
    static int note(char* keyword, char* data, const char*, int line, char termChar) {
        s_seen += std::to_string(line) + termChar + keyword + "=" + data + "|";
        return strcmp(keyword, "STOP") == 0 ? 42 : 0;
    }
    static inline std::string s_seen;
};

TEST_F(CfgFileTest, ReadsWhatTheFormatAllows) {
    struct Case {
        const char* what;
        std::string text;
        std::string seen;
        const char* trace;
        const char* stop = nullptr; ///< in syslog, behind the file's name
    };
    const std::string key63(63, 'K');
    const std::vector<Case> cases = {
        {"empty", "", "0", ""},
        {"blank and comment lines", "\n  \t\n# x\n  # y = z\nA=1", "5,A=1|0", ""},
        {"blanks around", " \tA \t= \t1 2  ", "1,A=1 2  |0", ""},
        {"CRLF and Ctrl-Z", "A = 1\r\nB=2\r\n\x1a", "1,A=1|2,B=2|0", ""},
        {"comment behind", "A = a#b", "1,A=a|0", ""},
        {"several equal signs", "A==b=c", "1,A==b=c|0", ""},
        {"no data", "A=", "1,A=|0", ""},
        {"no equal sign", "A b\nB=1", "2,B=1|0", "Missing equal sign in line 1 in cfg file"},
        {"longest keyword", key63 + "=1", "1," + key63 + "=1|0", ""},
        {"keyword too long", key63 + "K=1\nB=2", "2,B=2|0", "Missing equal sign in line 1"},
        {"term character", "TERM_CHAR = ;\nA=1", "2;A=1|0", ""},
        {"no term character", "TERM_CHAR =  \nA=1", "-2307", "Illegal data in line 1",
         "1: TERM_CHAR needs a character behind \"=\""},
        {"stopped", "A=1\nSTOP=now\x1b\xc3 # why\nB=2", "1,A=1|2,STOP=now\x1b\xc3 |42", "",
         "2: \"STOP=now?? \" failed with 42: correct or remove it"},
        {"longest line", "A=" + std::string(1995, 'x') + "\nB=1",
         "1,A=" + std::string(1995, 'x') + "|2,B=1|0", ""},
        {"line too long", "B=1\nA=" + std::string(1996, 'x') + "\nC=1", "1,B=1|0",
         "Line 2 in cfg file", "2: it has more than 1997 characters: shorten it"},
        {"longer", "A=" + std::string(1997, 'x'), "0", "Line 0 in cfg file",
         "1: it has more than 1997 characters: shorten it"},
        {"huge", "A=" + std::string(3000000, 'x') + "\nB=1", "0", " too long",
         "1: it has more than 1997 characters: shorten it"},
        {"NUL", std::string("A=1\0=2\nB=3", 10), "1,A=1|2,B=3|0", ""},
        {"binary", "\xff\xfe\x01=\x80\n=\n", "1,\xff\xfe\x01=\x80|2,=|0", ""},
    };
    for (const auto& each : cases) {
        const auto path = write(each.text);
        screen.take();
        EXPECT_EQ(read(path), each.seen) << each.what;
        const std::string traces = screen.take();
        EXPECT_EQ(traces.empty(), *each.trace == '\0') << each.what << ": " << traces;
        EXPECT_NE(traces.find(each.trace), std::string::npos) << each.what << ": " << traces;
        std::vector<std::pair<int, std::string>> said;
        if (each.stop)
            said.emplace_back(LOG_ERR | LOG_LOCAL0,
                              "Cfg file " + path + " stops in line " + each.stop + "\n");
        EXPECT_EQ(takeSyslog(), said) << each.what;
    }
}

TEST_F(CfgFileTest, WaitsForNothingThatIsNoFile) {
    EXPECT_EQ(read("/no/such/file"), "-2305");
    EXPECT_EQ(CCfgFile().ReadCfgfile(nullptr), -2305);
    EXPECT_EQ(ProcessCfgfileData(nullptr, nullptr, nullptr, 1, ','), 0);
    EXPECT_EQ(screen.take(), "");
    const auto fifo = folder / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(read(fifo), "-2306");
    EXPECT_NE(screen.take().find("Error opening cfg file"), std::string::npos);
    EXPECT_EQ(takeSyslog().size(), 1U);
    EXPECT_EQ(read(folder), "0");
    EXPECT_NE(screen.take().find("Error in line 0 of cfg file"), std::string::npos);
    const auto secret = write("A=1");
    chmod(secret.c_str(), 0);
    if (access(secret.c_str(), R_OK) == 0)
        return; // root may read everything, and so may who has namespaces of its own
    EXPECT_EQ(read(secret), "-2306");
}

TEST_F(CfgFileTest, RunsShellCommandsUntilOneFails) {
    const auto path = write("MSHELL=m_echo a#b\nmshell = m_echo wrong\nMSHELL = m_echo c\n"
                            "MSHELL = m_nosuch\nMSHELL = m_echo never\n");
    EXPECT_EQ(CCfgFile().ReadCfgfile(path.c_str()), -1700);
    const std::string output = screen.take();
    EXPECT_EQ(output.find("a\n"), 0U) << output;
    EXPECT_NE(output.find("Illegal keyword in cfg file " + path + " on line 2"), std::string::npos);
    EXPECT_NE(output.find("c\n-- ERROR: Unknown mshell command: m_nosuch\n"), std::string::npos);
    EXPECT_EQ(output.find("never"), std::string::npos);
}

TEST_F(CfgFileTest, AFileThatRunsItselfEnds) {
    static int depth;
    static std::string path;
    path = write("MSHELL = m_again\nMSHELL = m_again\n");
    const auto again = [](CommandStruct*) {
        ++depth;
        return static_cast<int>(CCfgFile().ReadCfgfile(path.c_str()));
    };
    mshell.AddMshellCmd(0, "m_again", "test", "", again, nullptr, true);
    depth = 0;
    EXPECT_EQ(CCfgFile().ReadCfgfile(path.c_str()), -2306);
    EXPECT_EQ(depth, CCfgFile::maxNesting);
    EXPECT_NE(screen.take().find("more than 8 deep"), std::string::npos);
    path = write("");
    EXPECT_EQ(CCfgFile().ReadCfgfile(path.c_str()), 0);
}

TEST_F(CfgFileTest, SplitsLinesIntoItems) {
    struct Case {
        const char* line;
        char separator;
        std::vector<std::string> items;
    };
    const std::vector<Case> cases = {
        {" a , b c ,,d", ',', {"a", "b c", "", "d", "", ""}},
        {"a\tb  c", ' ', {"a", "b", "c", ""}},
        {"a b\tc", '\t', {"a", "b", "c", ""}},
        {"a,b", '\0', {"a,b", "", ""}},
        {"", ',', {"", ""}},
    };
    for (const auto& each : cases) {
        std::string line = each.line;
        CCfgLine items;
        items.SetLine(line.data(), each.separator);
        for (const std::string& expected : each.items) {
            std::string item;
            EXPECT_EQ(items.GetNextString(&item), 0);
            EXPECT_EQ(item, expected) << each.line;
        }
    }
    std::string over = std::string(3000, 'x') + ",next";
    CCfgLine items;
    std::string item;
    items.SetLine(over.data(), ',');
    items.GetNextString(&item);
    EXPECT_EQ(item.size(), 1999U);
    items.GetNextString(&item);
    EXPECT_EQ(item, "next");
    EXPECT_EQ(CCfgLine().GetNextString(&item), -1);
    EXPECT_EQ(items.GetNextString(nullptr), -1);
}

TEST_F(CfgFileTest, ReadsNumbersAsTheSetDoes) {
    std::string line = "12abc, -5,0x1F,0XFFFFFFFF,99999999999,abc,0xg,,7";
    CCfgLine items;
    items.SetLine(line.data(), ',');
    const std::vector<int> values = {12, -5, 31, -1, INT32_MAX};
    int number = 0;
    for (const int value : values) {
        EXPECT_EQ(items.GetNextInt(&number), 0);
        EXPECT_EQ(number, value);
    }
    EXPECT_EQ(items.GetNextInt(&number), -1);
    EXPECT_EQ(items.GetNextInt(&number), 0); // "0", and what follows is not looked at
    EXPECT_EQ(items.GetNextInt(&number), -1);
    EXPECT_EQ(items.GetNextInt(nullptr), -1);
}

TEST_F(CfgFileTest, TheThreadRunsFilesInOrderAndStopsInASleep) {
    CCfgFileThread thread;
    static std::string setting;
    const auto noteSetting = [](CommandStruct*) {
        char name[16] = {};
        int policy = -1;
        sched_param parameter{};
        pthread_getname_np(pthread_self(), name, sizeof name);
        pthread_getschedparam(pthread_self(), &policy, &parameter);
        setting = name + std::string(policy == SCHED_OTHER ? "" : " first in, first out");
        return 0;
    };
    mshell.AddMshellCmd(0, "m_note", "test", "", noteSetting, nullptr, true);
    const auto first = write("MSHELL = m_note\nMSHELL = m_echo first\n", "first.cfg");
    const auto second = write("MSHELL = m_echo second\nMSHELL = m_sleep 1000\n", "second.cfg");
    thread.ExecuteCfgFileInSeparateThread(nullptr);
    CZantMsg pathless(SIG_ID_EXECUTE_CFG_FILE_IN_THREAD);
    pathless.signalSize = 7;
    EXPECT_EQ(thread.SendCmd(&pathless), 0);
    thread.ExecuteCfgFileInSeparateThread("/no/such/file");
    thread.ExecuteCfgFileInSeparateThread(first.c_str());
    thread.ExecuteCfgFileInSeparateThread(second.c_str());
    std::string output;
    ASSERT_TRUE(
        waitUntil([&] { return (output += screen.take()).find("second\n") != std::string::npos; }));
    const char* const expected[] = {"FAILED = no filename given", "FAILED = no filename given",
                                    "FAILED -  Cfg file not found : /no/such/file", "first\n",
                                    "second\n"};
    size_t at = 0;
    for (const char* const text : expected) {
        at = output.find(text, at);
        ASSERT_NE(at, std::string::npos) << text << output;
        at += strlen(text);
    }
    EXPECT_EQ(output.find("stacksize"), std::string::npos) << output;
    EXPECT_EQ(output.find("SCHED_FIFO"), std::string::npos) << output;
    EXPECT_EQ(thread.QueueName(),
              "/Q_CfgFileThread" + std::to_string(reinterpret_cast<intptr_t>(&thread)));
    const auto begin = std::chrono::steady_clock::now();
    thread.StopThreadAndWait();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    EXPECT_EQ(setting, "CfgFileThread");
}

} // namespace
