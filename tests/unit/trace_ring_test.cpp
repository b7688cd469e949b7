#include "debug/trace/sys_vars.h"
#include "support/wait_until.h"
#include "trace_fixture.h"

#include <algorithm>
#include <mutex>
#include <sched.h>
#include <thread>
#include <vector>

namespace {

constexpr int ringRoom = 1999;

/// Lines that the user-defined output function was given.
std::mutex receivedMutex;
std::vector<std::string> received;

void receive(const char* line) {
    const std::lock_guard<std::mutex> lock(receivedMutex);
    received.emplace_back(line);
}

class TraceRingTest : public TraceTest {
protected:
    TraceRingTest() {
        received.clear();
        zantTrace.SetTraceModeDirectPrint(0);
        zantTrace.SetTraceWithColors(0);
        printPending();
    }

    static std::string line(unsigned counter) { return lineStart(counter) + " x\n"; }
    static void trace() { TraceFormattedString(unit, 40, "x\n"); }
};

} // namespace

TEST_F(TraceRingTest, FullRingDropsAndTheGapShows) {
    std::string expected;
    for (int i = 0; i < ringRoom; ++i) {
        trace();
        expected += line(static_cast<unsigned>(i + 1));
    }
    trace();
    FormattedStringToStdout("dropped too\n");
    EXPECT_EQ(zantTraceThread.GetFreeTraceElement(1), nullptr);
    EXPECT_EQ(printOn(), expected);
    trace();
    EXPECT_EQ(printOn(), "--- GAP --- \n" + line(2001));
}

TEST_F(TraceRingTest, GapGoesWhereTheLinesGo) {
    trace();
    zantTraceCtr = 10;
    trace();
    zantTrace.SetTraceModeUseSyslog(1);
    EXPECT_EQ(printOn(), "");
    const auto sent = takeSyslog();
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[1], std::make_pair(6, std::string("--- GAP ---\n")));
}

TEST_F(TraceRingTest, CounterZeroHidesNoLineAndShowsNoGap) {
    zantTraceCtr = 65534;
    trace();
    trace();
    trace();
    EXPECT_EQ(printOn(), line(65535) + line(0) + line(1));
    trace();
    FormattedStringToStdout("listing\n");
    zantTraceCtr = 100;
    trace();
    EXPECT_EQ(printOn(), line(2) + "listing\n" + line(101));
}

TEST_F(TraceRingTest, UserFunctionGetsLinesThatGoNowhereElseUntilItThrows) {
    zantTrace.StopTracingToScreen();
    screen.take();
    RegisterUserDefinedTraceOutputFunction(receive);
    trace();
    zantTrace.SetTraceModeDirectPrint(1);
    trace();
    EXPECT_EQ(printOn(), "");
    EXPECT_EQ(received, std::vector<std::string>{line(1)});

    zantTrace.SetTraceModeDirectPrint(0);
    RegisterUserDefinedTraceOutputFunction([](const char* line) { throw line; });
    trace();
    EXPECT_NE(printOn().find("unregistered: unknown exception"), std::string::npos);
    trace();
    EXPECT_EQ(printOn(), "");
}

TEST_F(TraceRingTest, ClearingBetweenLookAndPrintPrintsNothing) {
    trace();
    EXPECT_TRUE(zantTraceThread.IsSomethingToPrint());
    zantTraceThread.ClearTraceBuffer();
    zantTraceThread.PrintNextTrace();
    EXPECT_FALSE(zantTraceThread.IsSomethingToPrint());
    EXPECT_EQ(screen.take(), "");
}

namespace {

/// The trace thread at work, at the pace of a clock that only lets others run.
class TraceThreadTest : public TraceRingTest {
protected:
    TraceThreadTest() {
        setTraceClock(&s_clock);
        RegisterUserDefinedTraceOutputFunction(receive);
    }
    ~TraceThreadTest() override { zantTraceThread.StopThreadAndWait(); }

    static size_t receivedLines() {
        const std::lock_guard<std::mutex> lock(receivedMutex);
        return received.size();
    }

    static bool hasReceived(const std::string& text) {
        const std::lock_guard<std::mutex> lock(receivedMutex);
        return std::any_of(received.begin(), received.end(), [&text](const std::string& each) {
            return each.find(text) != std::string::npos;
        });
    }

    static inline std::atomic<unsigned> s_longestSleep{0};

private:
    static void sleep(unsigned microseconds) {
        s_longestSleep = std::max(s_longestSleep.load(), microseconds);
        sched_yield();
    }
    static constexpr TraceClock s_clock{now, sleep};
};

} // namespace

TEST_F(TraceThreadTest, InitStartsTheThreadUnderTheProcessName) {
    trace();
    ASSERT_EQ(ZantTrace_Init("television-backend-process"), 0);
    ASSERT_EQ(ZantTrace_Init("television-backend-process"), 0);
    trace();
    // Between the two lines the second start is answered with a line of its own.
    const bool named = support::waitUntil([] { return hasReceived(" television-backend-x\n"); });
    zantTraceThread.StopThreadAndWait();
    ASSERT_TRUE(named) << testing::PrintToString(received);
    EXPECT_EQ(received[0], line(1));
    EXPECT_EQ(sysVarStringMap.Get("ZANTALOG_PATH"), std::string());
    EXPECT_LE(s_longestSleep, 100000u);
}

TEST_F(TraceThreadTest, LinesStayWholeAndInOrderWhileTheThreadComesAndGoes) {
    constexpr int producers = 3;
    constexpr int linesEach = 3000;
    zantTrace.StopTracingToScreen();
    std::atomic<int> running{producers};
    std::vector<std::thread> threads;
    for (int producer = 0; producer < producers; ++producer) {
        threads.emplace_back([producer, &running] {
            const std::string filler(static_cast<size_t>(100 + producer),
                                     static_cast<char>('a' + producer));
            for (int i = 0; i < linesEach; ++i)
                ZANT_TRACE(unit, 40, "|%d %d %s\n", producer, i, filler.c_str());
            --running;
        });
    }
    for (int round = 0; running > 0 || round < 20; ++round) {
        ASSERT_EQ(zantTraceThread.StartThread("ZantTrace", 0, 0), 0);
        support::waitUntil([before = receivedLines()] {
            return receivedLines() > before || !zantTraceThread.IsSomethingToPrint();
        });
        zantTraceThread.StopThreadAndWait();
        if (round % 5 == 4)
            zantTraceThread.ClearTraceBuffer();
    }
    for (std::thread& thread : threads)
        thread.join();

    int last[producers] = {-1, -1, -1};
    unsigned lastCounter = 0;
    for (const std::string& text : received) {
        unsigned counter = 0;
        int producer = -1;
        int number = -1;
        char filler[200];
        const size_t bar = text.find('|');
        if (bar == std::string::npos)
            continue; // the thread object's own
        ASSERT_EQ(sscanf(text.c_str(), "[%u]", &counter), 1) << text;
        ASSERT_EQ(sscanf(text.c_str() + bar, "|%d %d %199s\n", &producer, &number, filler), 3)
            << text;
        ASSERT_TRUE(producer >= 0 && producer < producers) << text;
        EXPECT_GT(number, last[producer]);
        last[producer] = number;
        EXPECT_GT(counter, lastCounter);
        lastCounter = counter;
        EXPECT_EQ(filler, std::string(static_cast<size_t>(100 + producer),
                                      static_cast<char>('a' + producer)));
    }
    EXPECT_GT(lastCounter, 0u);
}
