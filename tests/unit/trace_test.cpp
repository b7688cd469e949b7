#include "debug/trace/zant_trace_colors.h"
#include "trace_fixture.h"

#include <csignal>
#include <fcntl.h>

namespace {

struct LineCase {
    int level;
    const char* colour;
    int severity;
};

constexpr LineCase lineCases[] = {
    {0, "", 5},          {9, "", 5},          {10, "", 7},
    {16, "\x1b[36m", 7}, {17, "\x1b[32m", 7}, {18, "\x1b[35m", 7},
    {19, "\x1b[34m", 7}, {20, "", 6},         {26, "\x1b[36m", 6},
    {27, "\x1b[32m", 6}, {28, "\x1b[35m", 6}, {29, "\x1b[34m", 6},
    {30, "\x1b[33m", 4}, {31, "", 4},         {33, "", 4},
    {40, "\x1b[31m", 3}, {41, "", 3},         {50, "\x1b[1m\x1b[31m", 2},
    {51, "", 2},         {60, "", 1},         {66, "\x1b[36m", 1},
    {67, "\x1b[32m", 1}, {68, "\x1b[35m", 1}, {69, "\x1b[34m", 1},
    {1000, "", 1},       {-5, "", 5},
};

} // namespace

TEST_F(TraceTest, LineIsTheSameInBothModes) {
    zantTrace.SetTraceOn(unit, static_cast<T_TraceLevel>(-10));
    zantTrace.SetTraceTimestampsOn();
    unsigned counter = 0;
    for (const LineCase& c : lineCases) {
        SCOPED_TRACE(c.level);
        const std::string rest =
            " " + std::string(c.colour) + "channel 12\n" + (*c.colour ? "\x1b[0m" : "");
        ZANT_TRACE(unit, c.level, "channel %d\n", 12);
        EXPECT_EQ(screen.take(), nowText + lineStart(++counter) + rest);

        zantTrace.SetTraceModeDirectPrint(0);
        ZANT_TRACE_STREAM(unit, c.level, "channel " << 12 << "\n");
        zantTrace.SetTraceModeDirectPrint(1);
        EXPECT_EQ(printPending(), nowText + lineStart(++counter) + rest);
    }
}

TEST_F(TraceTest, SyslogTakesSeverityAndFacilityAndNoProcessName) {
    traceSettings.initialTraceProcessPrefix = "a-rather-long-process-name ";
    zantTrace.SetTraceModeUseSyslog(0);
    zantTrace.SetTraceWithColors(0);
    traceSettings.zantSyslogFacility = 136;
    TraceFormattedString(unit, 40, "x\n");
    EXPECT_EQ(screen.take(), lineStart(1) + "a-rather-long-proce" + "x\n");

    zantTrace.SetTraceModeUseSyslog(1);
    zantTrace.SetTraceTimestampsOn();
    zantTrace.SetTraceOn(unit, TRACELEVEL_ALL);
    for (const LineCase& c : lineCases) {
        if (c.level < 0)
            continue;
        SCOPED_TRACE(c.level);
        zantTraceCtr = 41;
        TraceFormattedString(unit, c.level, "x\n");
        zantTrace.SetTraceModeDirectPrint(0);
        TraceFormattedString(unit, c.level, "x\n");
        zantTrace.SetTraceModeDirectPrint(1);
        EXPECT_EQ(printPending(), "");
        const auto sent = takeSyslog();
        ASSERT_EQ(sent.size(), 2u);
        // Syslog adds the time to a direct line itself; a queued one keeps when it happened.
        EXPECT_EQ(sent[0], std::make_pair(c.severity | 136, lineStart(42) + "x\n"));
        EXPECT_EQ(sent[1], std::make_pair(c.severity | 136, nowText + lineStart(43) + "x\n"));
    }
}

TEST_F(TraceTest, TextWithoutHeaderNeverGoesToSyslog) {
    zantTrace.SetTraceModeUseSyslog(1);
    for (const int direct : {1, 0}) {
        zantTrace.SetTraceModeDirectPrint(direct);
        FormattedStringToStdout("list %s\n", "item");
        StreamToStdout(std::ostringstream("stream\n"));
        EXPECT_EQ(printPending(), "list item\nstream\n");
        FormattedStringToStdout("%s", std::string(5000, 'a').c_str());
        EXPECT_EQ(printPending(), std::string(1999, 'a'));
        StreamToStdout(std::ostringstream(std::string(5000, 'b')));
        EXPECT_EQ(printPending(), std::string(1999, 'b'));
    }
    EXPECT_TRUE(takeSyslog().empty());
    EXPECT_EQ(zantTraceCtr, 0);
}

TEST_F(TraceTest, LongMessageIsCutToTheLine) {
    struct {
        bool direct;
        int level;
        size_t messageRoom;
        std::string end;
    } const cases[] = {
        {false, 40, 1994, "\n\x1b[0m"},
        {false, 60, 1994, "\n"},
        {true, 40, 1998, "a\x1b"},
        {true, 60, 1998, "a"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "direct " << c.direct << " level " << c.level);
        zantTrace.SetTraceModeDirectPrint(c.direct);
        const std::string start = " " + std::string(c.level == 40 ? CS_RED : "");
        const size_t headerLength = lineStart(1).size() + start.size();
        for (const size_t extra : {size_t(0), size_t(1), size_t(100000)}) {
            zantTraceCtr = 0;
            const std::string message(c.messageRoom - headerLength + extra, 'a');
            TraceFormattedString(unit, c.level, "%s", message.c_str());
            const std::string line = printPending();
            if (extra == 0) {
                EXPECT_EQ(line.substr(headerLength, message.size()), message);
            } else {
                ASSERT_GT(line.size(), c.end.size());
                EXPECT_EQ(line.substr(line.size() - c.end.size()), c.end);
                EXPECT_EQ(line.find_first_not_of('a', headerLength),
                          c.end == "a" ? std::string::npos
                                       : line.size() - c.end.size() + (c.end[0] == 'a' ? 1 : 0));
                EXPECT_EQ(line.size(), c.messageRoom + c.end.size() - 1);
            }
        }
    }
}

TEST_F(TraceTest, HostileArgumentsLoseNothing) {
    const char* volatile null = nullptr;
    const char* volatile nullFormat = nullptr;
    const char* volatile impossible = "%ls wide\n";
    zantTrace.SetTraceWithColors(0);
    for (const int direct : {1, 0}) {
        zantTrace.SetTraceModeDirectPrint(direct);
        zantTraceCtr = 0;
        TraceFormattedString(unit, 40, "%s\n", null);
        EXPECT_EQ(printPending(), lineStart(1) + " (null)\n");
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
        TraceFormattedString(unit, 40, nullFormat);
        EXPECT_EQ(printPending(), lineStart(2) + " (null)\n");
        FormattedStringToStdout(nullFormat);
        EXPECT_EQ(printPending(), "(null)\n");
        TraceFormattedString(unit, 40, impossible, L"\x110000"); // no character
#pragma GCC diagnostic pop
        EXPECT_EQ(printPending(), lineStart(3) +
                                      " (message cannot be formatted, check its format and "
                                      "arguments) " +
                                      impossible);
    }
}

TEST_F(TraceTest, UnitOutOfRangeIsSaidAndNothingElse) {
    for (const int direct : {1, 0}) {
        zantTrace.SetTraceModeDirectPrint(direct);
        zantTrace.SetTraceOffAll();
        ZANT_TRACE(400, 10, "lost\n");
        ZANT_TRACE_STREAM(0xFFFFFFFFu, 10, "lost\n");
        EXPECT_EQ(printPending(),
                  "Traceunit out of range: 400 (max. allowed value = 400) see file: "
                  "2_general/debug/src/ZantTrace\n"
                  "Traceunit out of range: 4294967295 (max. allowed value = 400) "
                  "see file: 2_general/debug/src/ZantTrace\n");
    }
    EXPECT_EQ(zantTraceCtr, 0);
}

TEST_F(TraceTest, DroppedTraceEvaluatesNothing) {
    int evaluated = 0;
    zantTrace.SetTraceOn(unit, TRACELEVEL_ERROR);
    ZANT_TRACE(unit, 39, "%d\n", ++evaluated);
    ZANT_TRACE_STREAM(unit, 39, ++evaluated << "\n");
    TraceFormattedString(unit, 39, "x\n");
    TraceStream(unit, 39, std::ostringstream("x\n"));
    EXPECT_EQ(evaluated, 0);
    EXPECT_EQ(zantTraceCtr, 0);
    ZANT_TRACE(unit, 40, "%d\n", ++evaluated);
    EXPECT_EQ(evaluated, 1);
}

TEST_F(TraceTest, OnlyQueuedFatalHoldsItsCaller) {
    TraceFormattedString(unit, 50, "x\n");
    zantTrace.SetTraceModeDirectPrint(0);
    TraceFormattedString(unit, 49, "x\n");
    TraceFormattedString(unit, 51, "x\n");
    EXPECT_EQ(s_slept, 0u);
    TraceFormattedString(unit, 50, "x\n");
    EXPECT_EQ(s_slept, 2000000u);
}

TEST_F(TraceTest, ScreenOffPrintsNothing) {
    zantTrace.StopTracingToScreen();
    EXPECT_EQ(screen.take(), "\nCZantTrace::StopTracingToScreen called ==!!!==\n");
    TraceFormattedString(unit, 50, "x\n");
    FormattedStringToStdout("x\n");
    zantTrace.SetTraceModeDirectPrint(0);
    TraceFormattedString(unit, 49, "x\n");
    FormattedStringToStdout("x\n");
    EXPECT_EQ(printPending(), "");
}

TEST_F(TraceTest, ReaderThatIsGoneDoesNotKillTheProcess) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const int before = dup(STDOUT_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    close(ends[0]);
    close(ends[1]);
    for (const int direct : {1, 0}) {
        zantTrace.SetTraceModeDirectPrint(direct);
        TraceFormattedString(unit, 40, "into the void\n");
        while (zantTraceThread.IsSomethingToPrint())
            zantTraceThread.PrintNextTrace();
    }
    dup2(before, STDOUT_FILENO);
    close(before);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_FALSE(sigismember(&pending, SIGPIPE));
    screen.take();
    clearerr(stdout);
    zantTrace.SetTraceModeDirectPrint(1);
    FormattedStringToStdout("back\n");
    EXPECT_EQ(screen.take(), "back\n");
}
