#include "trace_fixture.h"

#include <mutex>
#include <set>
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

TEST_F(TraceRingTest, UserFunctionGetsLinesThatGoNowhereElse) {
    zantTrace.StopTracingToScreen();
    screen.take();
    RegisterUserDefinedTraceOutputFunction(receive);
    trace();
    zantTrace.SetTraceModeDirectPrint(1);
    trace();
    EXPECT_EQ(printOn(), "");
    EXPECT_EQ(received, std::vector<std::string>{line(1)});
}

TEST_F(TraceRingTest, ClearingBetweenLookAndPrintPrintsNothing) {
    trace();
    EXPECT_TRUE(zantTraceThread.IsSomethingToPrint());
    zantTraceThread.ClearTraceBuffer();
    zantTraceThread.PrintNextTrace();
    EXPECT_FALSE(zantTraceThread.IsSomethingToPrint());
    EXPECT_EQ(screen.take(), "");
}
