#include "trace_fixture.h"

#include <cstring>

TEST_F(TraceTest, LevelNamesGoBothWays) {
    int last = -1;
    size_t count = 0;
    for (const T_TraceLevelName* entry = zantTraceLevelNameTable; last != TRACELEVEL_NO_TRACE;
         ++entry, ++count) {
        EXPECT_GT(entry->value, last);
        last = entry->value;
        std::string lower = entry->name;
        for (char& c : lower)
            c = static_cast<char>(tolower(c));
        EXPECT_EQ(zantTrace.GetTraceLevelNrByName(lower.c_str()), entry->value);
        EXPECT_STREQ(zantTrace.GetTraceLevelNamePtr(entry->value), entry->name);
    }
    EXPECT_EQ(count, 36u);
    for (const int level : {7, 8, 14, 34, 71, -1})
        EXPECT_STREQ(zantTrace.GetTraceLevelNamePtr(level), "!!! ILLEGAL !!!");
    for (const char* const name : {"TRACELEVEL_", "TRACELEVEL_INFO ", "", (const char*)nullptr})
        EXPECT_EQ(zantTrace.GetTraceLevelNrByName(name), TRACELEVEL_ALL);
}

TEST_F(TraceTest, OlderScaleIsConverted) {
    const int converted[] = {0, 10, 10, 30, 40, 50, 60, 7, 8, 9, 10, 11};
    for (int level = 0; level < 12; ++level) {
        ASSERT_EQ(SetTraceOn(unit, static_cast<T_TraceLevel>(level)), 0);
        EXPECT_EQ(GetTraceActivationState(unit), converted[level]) << level;
    }
    zantTrace.SetTraceOnAll(TRACELEVEL_WARNING_OLD);
    for (const unsigned each : {0u, 1u, 399u})
        EXPECT_EQ(GetTraceActivationState(each), 30);
    zantTrace.SetTraceOffAll();
    for (const unsigned each : {0u, 1u, 399u})
        EXPECT_EQ(GetTraceActivationState(each), 70);
}

TEST_F(TraceTest, UnitOutOfRangeIsRefused) {
    for (const unsigned each : {400u, 0xFFFFFFFFu}) {
        EXPECT_EQ(SetTraceOn(each, TRACELEVEL_ALL), -1600);
        EXPECT_EQ(SetTraceOff(each), -1600);
        EXPECT_EQ(GetTraceActivationState(each), 0);
        zantTrace.PrintTraceActivationState(each, false);
        EXPECT_EQ(screen.take(), "Illegal trace unit specified\n");
    }
    for (unsigned each = 0; each < MAX_TRACE_UNITS; ++each)
        ASSERT_EQ(GetTraceActivationState(each), 30);
}

TEST_F(TraceTest, LibraryAloneNamesNoUnit) {
    EXPECT_STREQ(zantTrace.GetTraceUnitNamePtr(0), "TRACE_NONE");
    EXPECT_STREQ(zantTrace.GetTraceUnitNamePtr(399), "TRACE_NONE");
    EXPECT_EQ(zantTrace.GetTraceUnitNrByName("TRACE_NONE"), 0u);
    EXPECT_EQ(zantTrace.SetTraceOn("TRACE_NONE", "TRACELEVEL_INFO"), -1600);
    PrintAllTraceActivationStates();
    EXPECT_EQ(screen.take(), "");
    zantTrace.PrintTraceActivationState(9, false);
    EXPECT_EQ(screen.take(), "Trace unit   9 TRACE_NONE             - Trace activation state = 30 "
                             "(TRACELEVEL_WARNING)\n");
}

TEST_F(TraceTest, TimestampIsLocalTimeWithABlank) {
    char text[CZantTrace::timestampSize];
    EXPECT_EQ(zantTrace.PrintTimestampToCharString(text), static_cast<int>(strlen(nowText)));
    EXPECT_STREQ(text, nowText);
    EXPECT_EQ(zantTrace.PrintTimestampToCharString(nullptr), 0);
    zantTrace.PrintTimestamp();
    EXPECT_EQ(screen.take(), nowText);
}
