#include "debug/trace/zant_trace_thread.h"

#include "debug/trace/trace_clock.h"
#include "debug/trace/zant_trace_core.h"
#include "util/text_output.h"
#include "util/thrown_by.h"

#include <cstdio>
#include <cstring>
#include <syslog.h>

namespace {

/// At most one line in 10 ms, so that tracing never takes the machine: a burst larger than the ring
/// overflows and shows as a gap.
constexpr unsigned pauseAfterLineMicroseconds = 10000;
constexpr unsigned pauseWhenIdleMicroseconds = 100000;

} // namespace

// The ring is not initialised: that would touch, and so make resident, four megabytes.
CZantTraceThread::CZantTraceThread() {} // NOLINT

T_TraceElement* CZantTraceThread::GetFreeElement() {
    m_ringMutex.lock();
    const int32_t next = GetNextIndex(m_writeIndex);
    if (next == m_readIndex) {
        m_ringMutex.unlock();
        return nullptr;
    }
    return &m_ring[next];
}

char* CZantTraceThread::GetFreeTraceElement(uint16_t counter) {
    T_TraceElement* const element = GetFreeElement();
    if (!element)
        return nullptr;
    element->counter = counter;
    element->priority = TraceSettings::notForSyslog;
    element->text[0] = '\0';
    return element->text;
}

void CZantTraceThread::PutTraceString() {
    m_writeIndex = GetNextIndex(m_writeIndex);
    m_ringMutex.unlock();
}

bool CZantTraceThread::IsSomethingToPrint() {
    const MutexLock lock(m_ringMutex);
    return m_readIndex != m_writeIndex;
}

void CZantTraceThread::ClearTraceBuffer() {
    const MutexLock lock(m_ringMutex);
    m_readIndex = m_writeIndex;
}

void CZantTraceThread::ThreadWorkFunction() {
    while (!stopRequested) {
        if (IsSomethingToPrint()) {
            PrintNextTrace();
            traceClock().sleep(pauseAfterLineMicroseconds);
        } else {
            traceClock().sleep(pauseWhenIdleMicroseconds);
        }
    }
}

void CZantTraceThread::PrintNextTrace() {
    T_TraceElement element;
    if (!takeNextElement(element))
        return;
    if (element.counter != 0 && m_lastPrintedCounter != 0 &&
        m_lastPrintedCounter + 1 != element.counter)
        printGap();
    m_lastPrintedCounter = element.counter;
    printElement(element);
}

bool CZantTraceThread::takeNextElement(T_TraceElement& element) {
    const MutexLock lock(m_ringMutex);
    if (m_readIndex == m_writeIndex)
        return false;
    m_readIndex = GetNextIndex(m_readIndex);
    const T_TraceElement& pending = m_ring[m_readIndex];
    element.counter = pending.counter;
    element.priority = pending.priority;
    memcpy(element.text, pending.text, strnlen(pending.text, TraceLine::size - 1) + 1);
    element.text[TraceLine::size - 1] = '\0';
    return true;
}

void CZantTraceThread::printGap() {
    // In syslog mode the prefix is empty.
    const char* const prefix = traceSettings.zantTraceProcessPrefix;
    char line[48];
    snprintf(line, sizeof line, "--- GAP ---%s\n", prefix);
    traceSettings.put(LOG_INFO, line);
    zantTrace.WriteToLogfile("--- GAP ---\n");
}

/// The thread must not end over what the application does.
void CZantTraceThread::callUserOutput(T_UserTraceOutputFunction output, const char* line) {
    const auto thrown = thrownBy([=] { output(line); });
    if (!thrown)
        return;
    UnregisterUserDefinedTraceOutputFunction();
    printfToStdout("CZantTraceThread:: The user-defined output function threw and is "
                   "unregistered: %s\n",
                   thrown->c_str());
}

void CZantTraceThread::printElement(const T_TraceElement& element) {
    traceSettings.put(element.priority, element.text);
    zantTrace.WriteToLogfile(element.text);

    if (const T_UserTraceOutputFunction output = traceSettings.funcUserTraceOutputPtr)
        callUserOutput(output, element.text);
}
