#ifndef TRACE_FIXTURE_H
#define TRACE_FIXTURE_H

#include "debug/trace/trace_clock.h"
#include "debug/trace/zant_trace_core.h"
#include "debug/trace/zant_trace_thread.h"
#include "recorded_syslog.h"
#include "support/stdout_capture.h"

#include <atomic>
#include <cstdio>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>

/// Tracing as it is after load, to the screen, with a clock that stands still and counts what
/// callers sleep.
class TraceTest : public ::testing::Test {
protected:
    static constexpr unsigned unit = 7;

    TraceTest() {
        zantTraceThread.ClearTraceBuffer();
        zantTraceCtr = 0;
        traceSettings.initialTraceProcessPrefix = "";
        traceSettings.zantTraceProcessPrefix = " ";
        traceSettings.zantSyslogFacility = 128;
        traceSettings.zantTraceUseSyslog = false;
        zantTrace.SetTraceOnAll(TRACELEVEL_WARNING);
        zantTrace.SetTraceModeDirectPrint(1);
        zantTrace.SetTraceWithColors(1);
        zantTrace.SetTraceTimestampsOff();
        zantTrace.StartTracingToScreen();
        s_slept = 0;
        setTraceClock(&s_clock);
        takeSyslog();
        printPending();
    }
    ~TraceTest() override {
        UnregisterUserDefinedTraceOutputFunction();
        setTraceClock(nullptr);
    }

    static timeval now() {
        tm local{};
        local.tm_year = 2031 - 1900;
        local.tm_mon = 2;
        local.tm_mday = 4;
        local.tm_hour = 5;
        local.tm_min = 6;
        local.tm_sec = 7;
        local.tm_isdst = -1;
        timeval time{};
        time.tv_sec = mktime(&local);
        time.tv_usec = 8999;
        return time;
    }
    static constexpr const char* nowText = "2031-03-04 05:06:07.008 ";

    /// "[counter] thread", as every line of this thread begins.
    static std::string lineStart(unsigned counter) {
        char text[40];
        snprintf(text, sizeof text, "[%05u] %08x ", counter, static_cast<unsigned>(pthread_self()));
        return text;
    }

    /// What the trace thread would print now, after lines that it knows nothing of.
    std::string printPending() {
        const std::string text = printOn();
        if (char* const forgetsTheLastCounter = zantTraceThread.GetFreeTraceElement(0)) {
            forgetsTheLastCounter[0] = '\0';
            zantTraceThread.PutTraceString();
            zantTraceThread.PrintNextTrace();
        }
        return text;
    }

    /// What the trace thread would print now, in the sequence of what it printed before.
    std::string printOn() {
        while (zantTraceThread.IsSomethingToPrint())
            zantTraceThread.PrintNextTrace();
        return screen.take();
    }

    static inline std::atomic<unsigned> s_slept{0};
    support::StdoutCapture screen;

private:
    static void sleep(unsigned microseconds) { s_slept += microseconds; }
    static constexpr TraceClock s_clock{now, sleep};
};

#endif
