#include "debug/trace/trace_settings.h"

#include "util/text_output.h"

TraceSettings traceSettings;
std::atomic<uint16_t> zantTraceCtr{0};

void TraceSettings::put(int32_t priority, const char* text) const {
    if (void (*const observe)(const char*) = lineObserver)
        observe(text);
    if (zantTraceUseSyslog && priority != notForSyslog)
        sendToSyslog(priority, text);
    else if (tracingToScreen)
        printToStdout(text);
}

const T_TraceLevelName zantTraceLevelNameTable[] = {
    {0, "TRACELEVEL_ALL"},
    {1, "TRACELEVEL_DEBUG_OLD"},
    {2, "TRACELEVEL_INFO_OLD"},
    {3, "TRACELEVEL_WARNING_OLD"},
    {4, "TRACELEVEL_ERROR_OLD"},
    {5, "TRACELEVEL_FATAL_OLD"},
    {6, "TRACELEVEL_SYSINFO_OLD"},
    {9, "TRACELEVEL_MAX_OLD"},
    {10, "TRACELEVEL_DEBUG"},
    {11, "TRACELEVEL_DEBUG1"},
    {12, "TRACELEVEL_DEBUG2"},
    {13, "TRACELEVEL_DEBUG3"},
    {16, "TRACELEVEL_DEBUG_CYAN"},
    {17, "TRACELEVEL_DEBUG_GREEN"},
    {18, "TRACELEVEL_DEBUG_MAGENTA"},
    {19, "TRACELEVEL_DEBUG_BLUE"},
    {20, "TRACELEVEL_INFO"},
    {21, "TRACELEVEL_INFO1"},
    {22, "TRACELEVEL_INFO2"},
    {23, "TRACELEVEL_INFO3"},
    {26, "TRACELEVEL_INFO_CYAN"},
    {27, "TRACELEVEL_INFO_GREEN"},
    {28, "TRACELEVEL_INFO_MAGENTA"},
    {29, "TRACELEVEL_INFO_BLUE"},
    {30, "TRACELEVEL_WARNING"},
    {31, "TRACELEVEL_WARNING1"},
    {32, "TRACELEVEL_WARNING2"},
    {33, "TRACELEVEL_WARNING3"},
    {40, "TRACELEVEL_ERROR"},
    {50, "TRACELEVEL_FATAL"},
    {60, "TRACELEVEL_SYSINFO"},
    {66, "TRACELEVEL_SYSINFO_CYAN"},
    {67, "TRACELEVEL_SYSINFO_GREEN"},
    {68, "TRACELEVEL_SYSINFO_MAGENTA"},
    {69, "TRACELEVEL_SYSINFO_BLUE"},
    {TRACELEVEL_NO_TRACE, "TRACELEVEL_NO_TRACE"},
};
