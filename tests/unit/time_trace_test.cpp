#include "debug/trace/time_trace.h"
#include "debug/trace/zant_trace_core.h"
#include "support/stdout_capture.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

constexpr int unit = 21;

timespec at(long seconds, long nanoseconds) {
    timespec time{};
    time.tv_sec = static_cast<time_t>(seconds);
    time.tv_nsec = nanoseconds;
    return time;
}

class TimeTraceTest : public ::testing::Test {
protected:
    TimeTraceTest() {
        zantTrace.StartTracingToScreen();
        zantTrace.SetTraceWithColors(0);
        zantTrace.SetTraceOn(unit, TRACELEVEL_ERROR);
        EXPECT_EQ(trace.StartTT("start"), 0);
    }

    /// Takes what was traced or printed, without the header of a trace.
    std::string takeMessage() {
        const std::string text = screen.take();
        return text.substr(std::min(text.size(), text[0] == '[' ? size_t(18) : size_t(0)));
    }

    support::StdoutCapture screen;
    CTimeTrace trace{unit, 20};
};

} // namespace

TEST_F(TimeTraceTest, DifferenceBorrowsASecond) {
    const timespec difference = CTimeTrace::TTDiffTime(at(1, 999999999), at(2, 1));
    EXPECT_EQ(difference.tv_sec, 0);
    EXPECT_EQ(difference.tv_nsec, 2);
    EXPECT_EQ(CTimeTrace::TTDiffTime(at(1, 5), at(4, 5)).tv_sec, 3);
}

TEST_F(TimeTraceTest, PrintsOneLineAPoint) {
    trace.TTPoint(12345, "opened");
    trace.TTPoint(-1, nullptr);
    EXPECT_EQ(trace.GetTTSize(), 2);
    trace.TTPrint();
    const std::string text = screen.take();
    int index = -1;
    int id = -1;
    long microseconds = -1;
    EXPECT_EQ(sscanf(text.c_str(), "%d Id = %d usec = %ld Diff", &index, &id, &microseconds), 3);
    EXPECT_LT(microseconds, 1000000);
    timespec difference{};
    EXPECT_EQ(trace.TTGetRange(&difference, 1, 2), 0);
    char shown[40];
    snprintf(shown, sizeof shown, " = %03ld.%06ld \n", static_cast<long>(difference.tv_sec),
             difference.tv_nsec / 1000);
    EXPECT_EQ(text.substr(text.size() - strlen(shown)), shown) << "from the point before";
    EXPECT_EQ(text.substr(0, 24), "0000 Id = 0000 usec = " + text.substr(22, 2));
    EXPECT_NE(text.find(" Diff (sec.usec) = 000.000000 start\n0001 Id = 12345 usec = "),
              std::string::npos);
    EXPECT_NE(text.find(" opened\n0002 Id = -001 usec = "), std::string::npos);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
    trace.InitTT();
    trace.TTPrint();
    EXPECT_EQ(screen.take(), "0000 Id = 0000 usec = 000000 Diff (sec.usec) = 000.000000 "
                             "--- THREAD COLLISION ---\n");
}

TEST_F(TimeTraceTest, TotalsGoFromTheStartToTheLastPointAndToNow) {
    const auto microseconds = [](timespec time) {
        return static_cast<long>(time.tv_sec) * 1000000 + time.tv_nsec / 1000;
    };
    while (microseconds(trace.TTDiffTimeTotalCurrent()) < 2000) {
    }
    EXPECT_EQ(microseconds(trace.TTDiffTimeTotal()), 0) << "no point yet";
    trace.TTPoint(1, "first");
    trace.TTPoint(2, "last");
    const timespec total = trace.TTDiffTimeTotal();
    timespec range{};
    EXPECT_EQ(trace.TTGetRange(&range, 0, 2), 0);
    EXPECT_EQ(microseconds(total), microseconds(range));
    EXPECT_GE(microseconds(total), 2000);
    EXPECT_GE(microseconds(trace.TTDiffTimeTotalCurrent()), microseconds(total));
}

TEST_F(TimeTraceTest, TheProcesssHasRoomForAThousandPoints) {
    EXPECT_EQ(timeTrace.StartTT("start"), 0);
    for (int i = 0; i < 1000; ++i)
        timeTrace.TTPoint(i, "point");
    EXPECT_EQ(timeTrace.GetTTSize(), 999);
    // It traces with unit 0.
    zantTrace.SetTraceOn(0U, TRACELEVEL_ERROR);
    EXPECT_EQ(timeTrace.TTGetRange(nullptr, 1000, 1000), -2550);
    EXPECT_EQ(takeMessage(), "Range start greater than trace\n");
    zantTrace.SetTraceOn(0U, TRACELEVEL_FATAL);
    EXPECT_EQ(timeTrace.TTGetRange(nullptr, 1000, 1000), -2550);
    EXPECT_EQ(takeMessage(), "");
    timeTrace.InitTT();
    EXPECT_EQ(timeTrace.GetTTSize(), 0);
}

TEST_F(TimeTraceTest, FullArrayKeepsWhatItHas) {
    CTimeTrace full(2, unit, 20);
    full.StartTT("start");
    full.TTPoint(1, "last");
    full.TTPoint(2, "beyond");
    EXPECT_EQ(full.GetTTSize(), 1);
    timespec range{};
    EXPECT_EQ(full.TTGetRange(&range, 0, 5000), 0);
    EXPECT_EQ(full.TTGetIdRange(&range, 0, 2), -2555);

    CTimeTrace none(0, unit, 20);
    EXPECT_EQ(none.StartTT("start"), 0);
    none.TTPoint(1, "x");
    none.TTPrint();
    EXPECT_EQ(none.TTGetIdRange(&range, 0, 0), -2554);
    EXPECT_EQ(none.TTDiffTimeTotal().tv_nsec, 0);
}

TEST_F(TimeTraceTest, RefusedRangesSayWhy) {
    trace.TTPoint(7, "a");
    trace.TTPoint(7, "b");
    trace.TTPoint(8, "c");
    struct {
        int32_t start, end, code;
        const char* text;
    } const ranges[] = {
        {0, 3, 0, ""},
        {3, 3, 0, ""},
        {4, 2, -2550, "Range start greater than trace\n"},
        {0, 4, -2551, "Range end greater than trace\n"},
        {3, 1, -2552, "Illegal range : 3 - 1 (length=3)\n"},
        {-1, 1, -2552, "Illegal range : -1 - 1 (length=3)\n"},
    };
    for (const auto& r : ranges) {
        EXPECT_EQ(trace.TTGetRange(nullptr, r.start, r.end), r.code);
        EXPECT_EQ(takeMessage(), r.text);
    }
    EXPECT_EQ(trace.TTGetIdRange(nullptr, 9, 7), -2554);
    EXPECT_EQ(takeMessage(), "TTPrintIdRange: StartId 9 not found\n");
    EXPECT_EQ(trace.TTPrintIdRange(7, 10, "a", "b"), -2555);
    EXPECT_EQ(takeMessage(), "TTPrintIdRange: EndId 10 not found\n");

    zantTrace.SetTraceOn(unit, TRACELEVEL_FATAL);
    EXPECT_EQ(trace.TTGetRange(nullptr, 4, 2), -2550);
    EXPECT_EQ(takeMessage(), "");
}

TEST_F(TimeTraceTest, RangesOfFirstPointsWithTheIds) {
    trace.TTPoint(7, "a");
    trace.TTPoint(8, "b");
    trace.TTPoint(7, "c");
    trace.TTPoint(8, "d");
    timespec byIndex{};
    timespec byId{};
    EXPECT_EQ(trace.TTGetRange(&byIndex, 1, 2), 0);
    EXPECT_EQ(trace.TTGetIdRange(&byId, 7, 8), 0);
    EXPECT_EQ(byId.tv_nsec, byIndex.tv_nsec);
    EXPECT_EQ(trace.TTPrintRange(1, 2), 0);
    EXPECT_EQ(screen.take().find("Range = 1 - 2 (Id 7 - 8) Diff: (sec.usec) 000."), 0u);
    EXPECT_EQ(trace.TTPrintIdRange(7, 8, "open", "close"), 0);
    EXPECT_EQ(screen.take().find("IdRange = open - close (Id 7 - 8) Diff: (sec.usec) 000."), 0u);
}
