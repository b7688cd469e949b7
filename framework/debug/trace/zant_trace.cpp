#include "debug/trace/zant_trace.h"

#include "debug/trace/output_capture.h"
#include "debug/trace/trace_clock.h"
#include "debug/trace/trace_line.h"
#include "debug/trace/zant_trace_colors.h"
#include "debug/trace/zant_trace_core.h"
#include "debug/trace/zant_trace_thread.h"
#include "util/cancellation_block.h"
#include "util/text_output.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <syslog.h>

namespace {

/// Room of a queued message, and of a queued line: what follows a cut message still fits.
constexpr size_t queuedMessageRoom = 1995;
constexpr size_t queuedLineRoom = 1999;
constexpr size_t directMessageRoom = 1999;

constexpr unsigned fatalDelayMicroseconds = 2000000;

struct LevelColour {
    int level;
    const char* colour;
};

/// Within their bands, 31 to 33 are not coloured, deliberately.
constexpr LevelColour levelColours[] = {
    {TRACELEVEL_DEBUG_CYAN, CS_CYAN},       {TRACELEVEL_DEBUG_GREEN, CS_GREEN},
    {TRACELEVEL_DEBUG_MAGENTA, CS_MAGENTA}, {TRACELEVEL_DEBUG_BLUE, CS_BLUE},
    {TRACELEVEL_INFO_CYAN, CS_CYAN},        {TRACELEVEL_INFO_GREEN, CS_GREEN},
    {TRACELEVEL_INFO_MAGENTA, CS_MAGENTA},  {TRACELEVEL_INFO_BLUE, CS_BLUE},
    {TRACELEVEL_WARNING, CS_YELLOW},        {TRACELEVEL_ERROR, CS_RED},
    {TRACELEVEL_FATAL, "\x1b[1m\x1b[31m"},  {TRACELEVEL_SYSINFO_CYAN, CS_CYAN},
    {TRACELEVEL_SYSINFO_GREEN, CS_GREEN},   {TRACELEVEL_SYSINFO_MAGENTA, CS_MAGENTA},
    {TRACELEVEL_SYSINFO_BLUE, CS_BLUE},
};

/// The colour start of a level, empty for none.
const char* colourOf(int level) {
    if (!traceSettings.zantTraceWithColors)
        return "";
    for (const LevelColour& entry : levelColours) {
        if (entry.level == level)
            return entry.colour;
    }
    return "";
}

int severityOf(int level) {
    if (level < 10)
        return LOG_NOTICE;
    constexpr int severityByBand[] = {LOG_DEBUG, LOG_INFO, LOG_WARNING, LOG_ERR, LOG_CRIT};
    const int band = level / 10 - 1;
    return band < 5 ? severityByBand[band] : LOG_ALERT;
}

int32_t syslogPriority(int level) {
    return severityOf(level) | traceSettings.zantSyslogFacility;
}

uint16_t nextTraceCounter() {
    return static_cast<uint16_t>(zantTraceCtr.fetch_add(1, std::memory_order_relaxed) + 1);
}

/// True when the trace passes; answers a unit out of range.
bool accept(unsigned unit, int level) {
    if (unit < MAX_TRACE_UNITS)
        return ZantTracePasses(unit, level);
    FormattedStringToStdout("Traceunit out of range: %u (max. allowed value = %d) see file: "
                            "2_general/debug/src/ZantTrace\n",
                            unit, MAX_TRACE_UNITS);
    return false;
}

__attribute__((format(printf, 2, 0))) void queueTrace(int level, const char* format,
                                                      va_list arguments) {
    const char* const colour = colourOf(level);
    T_TraceElement* const element = zantTraceThread.GetFreeElement();
    // Counted under the ring's lock, so that lines enter the ring in the order of their counters;
    // a line that finds no room is counted too and shows as a gap.
    const uint16_t counter = nextTraceCounter();
    if (!element)
        return;

    element->counter = counter;
    element->priority = syslogPriority(level);
    TraceLine line(element->text);
    if (traceSettings.timestamps)
        line.addTimestamp();
    line.addHeader(counter, traceSettings.zantTraceProcessPrefix, colour);
    if (line.addMessage(queuedMessageRoom, format, arguments))
        line.endWithNewline();
    if (*colour)
        line.addText(queuedLineRoom, CS_NORMAL);
    zantTraceThread.PutTraceString();

    if (level == TRACELEVEL_FATAL) {
        const CancellationBlock uncancelled;
        traceClock().sleep(fatalDelayMicroseconds);
    }
}

__attribute__((format(printf, 2, 0))) void printTrace(int level, const char* format,
                                                      va_list arguments) {
    const char* const colour = colourOf(level);
    char text[TraceLine::size];
    TraceLine line(text);
    if (!traceSettings.zantTraceUseSyslog && traceSettings.timestamps)
        line.addTimestamp();
    line.addHeader(nextTraceCounter(), traceSettings.zantTraceProcessPrefix, colour);
    line.addMessage(directMessageRoom, format, arguments);
    if (*colour)
        line.addText(TraceLine::size, CS_NORMAL);

    traceSettings.put(syslogPriority(level), text);
    if (traceSettings.zantTraceWriteToLogfileIfDirectPrint)
        zantTrace.WriteToLogfile(text);
}

} // namespace

void TraceFormattedString(unsigned unit, int level, const char* format, ...) {
    if (!accept(unit, level))
        return;
    va_list arguments;
    va_start(arguments, format);
    const char* const safeFormat = format ? format : "(null)\n";
    if (traceSettings.zantTraceDirectPrint)
        printTrace(level, safeFormat, arguments);
    else
        queueTrace(level, safeFormat, arguments);
    va_end(arguments);
}

void TraceStream(unsigned unit, int level, const std::ostringstream& stream) {
    if (accept(unit, level))
        TraceFormattedString(unit, level, "%s", stream.str().c_str());
}

void FormattedStringToStdout(const char* format, ...) {
    char text[TraceLine::size];
    TraceLine line(text);
    va_list arguments;
    va_start(arguments, format);
    line.addMessage(sizeof text, format ? format : "(null)\n", arguments);
    va_end(arguments);

    if (OutputCapture* const capture = OutputCapture::current())
        return capture->add(text);
    if (traceSettings.zantTraceDirectPrint) {
        traceSettings.put(TraceSettings::notForSyslog, text);
        return;
    }
    if (char* const queued = zantTraceThread.GetFreeTraceElement(0)) {
        TraceLine(queued).addText(TraceLine::size, text);
        zantTraceThread.PutTraceString();
    }
}

void StreamToStdout(const std::ostringstream& stream) {
    FormattedStringToStdout("%s", stream.str().c_str());
}

int32_t ZantTrace_Init(const char* processName) {
    return zantTrace.Init(processName, LOG_LOCAL0);
}

int32_t SetTraceOn(unsigned unit, T_TraceLevel level) {
    return zantTrace.SetTraceOn(unit, level);
}

int32_t SetTraceOff(unsigned unit) {
    return zantTrace.SetTraceOff(unit);
}

T_TraceLevel GetTraceActivationState(unsigned unit) {
    return zantTrace.GetTraceActivationState(unit);
}

void ErrorToSyslog(const char* text) {
    sendToSyslog(LOG_ERR | traceSettings.zantSyslogFacility, text);
}

void ErrorToSyslogUnlessTraced(unsigned unit, int level, const char* text) {
    if (!traceSettings.zantTraceUseSyslog || !ZantTracePasses(unit, level))
        ErrorToSyslog(text);
}

void PrintAllTraceActivationStates(void) {
    zantTrace.PrintAllTraceActivationStates();
}

void RegisterUserDefinedTraceOutputFunction(T_UserTraceOutputFunction function) {
    traceSettings.funcUserTraceOutputPtr = function;
}

void UnregisterUserDefinedTraceOutputFunction(void) {
    traceSettings.funcUserTraceOutputPtr = nullptr;
}
