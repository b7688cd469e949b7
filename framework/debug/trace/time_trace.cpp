#include "debug/trace/time_trace.h"

#include "debug/trace/zant_trace.h"

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <new>

namespace {

constexpr unsigned defaultCapacity = 1000;
constexpr unsigned maxCapacity = INT32_MAX;
constexpr int32_t notFound = -1;

/// The label of a point that was counted but never written.
constexpr const char* unwrittenText = "--- THREAD COLLISION ---";

const char* shown(const char* text) {
    return text ? text : "";
}

long secondsOf(timespec time) {
    return static_cast<long>(time.tv_sec);
}
long microsecondsOf(timespec time) {
    return time.tv_nsec / 1000;
}

} // namespace

CTimeTrace::CTimeTrace(int unit, int level) : CTimeTrace(defaultCapacity, unit, level) {}

CTimeTrace::CTimeTrace(unsigned capacity, int unit, int level)
    : m_points(new (std::nothrow) Point[std::min(capacity, maxCapacity)]),
      m_capacity(m_points ? static_cast<int32_t>(std::min(capacity, maxCapacity)) : 0),
      m_unit(unit), m_level(level) {
    InitTT();
}

void CTimeTrace::InitTT() {
    m_lastIndex = 0;
    std::fill_n(m_points.get(), m_capacity, Point{0, unwrittenText, {}});
}

int32_t CTimeTrace::StartTT(const char* text) {
    InitTT();
    return record(0, 0, text);
}

void CTimeTrace::TTPoint(int32_t id, const char* text) {
    const int32_t next = m_lastIndex + 1;
    if (next >= m_capacity)
        return;
    m_lastIndex = next;
    record(next, id, text);
}

int32_t CTimeTrace::record(int32_t index, int32_t id, const char* text) {
    timespec now{};
    const int32_t result = clock_gettime(CLOCK_MONOTONIC, &now);
    if (index < m_capacity)
        m_points[static_cast<size_t>(index)] = {id, text, now};
    return result;
}

timespec CTimeTrace::TTDiffTime(timespec a, timespec b) {
    timespec difference{};
    difference.tv_sec = b.tv_sec - a.tv_sec;
    difference.tv_nsec = b.tv_nsec - a.tv_nsec;
    if (difference.tv_nsec < 0) {
        --difference.tv_sec;
        difference.tv_nsec += 1000000000;
    }
    return difference;
}

timespec CTimeTrace::TTDiffTimeTotal() const {
    if (m_capacity == 0)
        return {};
    return TTDiffTime(m_points[0].time, m_points[static_cast<size_t>(m_lastIndex)].time);
}

timespec CTimeTrace::TTDiffTimeTotalCurrent() const {
    if (m_capacity == 0)
        return {};
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return TTDiffTime(m_points[0].time, now);
}

int32_t CTimeTrace::TTGetRange(timespec* out, int32_t start, int32_t end) const {
    const int32_t last = std::min(end, m_capacity - 1);
    if (start > m_lastIndex)
        return fail(errorRangeStart, "Range start greater than trace\n");
    if (last > m_lastIndex)
        return fail(errorRangeEnd, "Range end greater than trace\n");
    if (start < 0 || last < start)
        return fail(errorIllegalRange, "Illegal range : %d - %d (length=%d)\n", start, end,
                    m_lastIndex);
    if (out)
        *out = TTDiffTime(m_points[static_cast<size_t>(start)].time,
                          m_points[static_cast<size_t>(last)].time);
    return 0;
}

int32_t CTimeTrace::TTGetIdRange(timespec* out, int32_t startId, int32_t endId) const {
    const int32_t start = findId(startId);
    if (start == notFound)
        return fail(errorStartId, "TTPrintIdRange: StartId %d not found\n", startId);
    const int32_t end = findId(endId);
    if (end == notFound)
        return fail(errorEndId, "TTPrintIdRange: EndId %d not found\n", endId);
    return TTGetRange(out, start, end);
}

int32_t CTimeTrace::findId(int32_t id) const {
    for (int32_t index = 0; index <= std::min(m_lastIndex, m_capacity - 1); ++index) {
        if (m_points[static_cast<size_t>(index)].id == id)
            return index;
    }
    return notFound;
}

void CTimeTrace::TTPrint() const {
    timespec difference{};
    for (int32_t index = 0; index <= std::min(m_lastIndex, m_capacity - 1); ++index) {
        const Point& point = m_points[static_cast<size_t>(index)];
        if (index > 0)
            difference = TTDiffTime(m_points[static_cast<size_t>(index - 1)].time, point.time);
        FormattedStringToStdout("%04d Id = %04d usec = %06ld Diff (sec.usec) = %03ld.%06ld %s\n",
                                index, point.id, microsecondsOf(point.time), secondsOf(difference),
                                microsecondsOf(difference), shown(point.text));
    }
}

int32_t CTimeTrace::TTPrintRange(int32_t start, int32_t end) const {
    timespec difference{};
    const int32_t result = TTGetRange(&difference, start, end);
    if (result != 0)
        return result;
    FormattedStringToStdout("Range = %d - %d (Id %d - %d) Diff: (sec.usec) %03ld.%06ld\n", start,
                            end, m_points[static_cast<size_t>(start)].id,
                            m_points[static_cast<size_t>(std::min(end, m_capacity - 1))].id,
                            secondsOf(difference), microsecondsOf(difference));
    return 0;
}

int32_t CTimeTrace::TTPrintIdRange(int32_t startId, int32_t endId, const char* text1,
                                   const char* text2) const {
    timespec difference{};
    const int32_t result = TTGetIdRange(&difference, startId, endId);
    if (result != 0)
        return result;
    FormattedStringToStdout("IdRange = %s - %s (Id %d - %d) Diff: (sec.usec) %03ld.%06ld\n",
                            shown(text1), shown(text2), startId, endId, secondsOf(difference),
                            microsecondsOf(difference));
    return 0;
}

int32_t CTimeTrace::fail(int32_t code, const char* format, ...) const {
    const auto unit = static_cast<unsigned>(m_unit);
    if (unit >= MAX_TRACE_UNITS || !ZantTracePasses(unit, TRACELEVEL_ERROR))
        return code;
    char message[200];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    TraceFormattedString(unit, std::max<int>(m_level, TRACELEVEL_ERROR), "%s", message);
    return code;
}
