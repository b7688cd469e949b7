#include "debug/zant_trace_thread.h"

#include "debug/trace_output.h"
#include "debug/zant_trace_core.h"
#include "debug/zant_trace_state.h"

#include <cstring>
#include <syslog.h>

// The ring is not initialised: that would touch, and so make resident, four megabytes.
CZantTraceThread::CZantTraceThread() {} // NOLINT

T_TraceElement* CZantTraceThread::GetFreeElement() {
    m_mutex.lock();
    const int32_t next = GetNextIndex(m_writeIndex);
    if (next == m_readIndex) {
        m_mutex.unlock();
        return nullptr;
    }
    return &m_ring[next];
}

char* CZantTraceThread::GetFreeTraceElement(uint16_t counter) {
    T_TraceElement* const element = GetFreeElement();
    if (!element)
        return nullptr;
    element->counter = counter;
    element->priority = T_TraceElement::notForSyslog;
    element->text[0] = '\0';
    return element->text;
}

void CZantTraceThread::PutTraceString() {
    m_writeIndex = GetNextIndex(m_writeIndex);
    m_mutex.unlock();
}

bool CZantTraceThread::IsSomethingToPrint() {
    const MutexLock lock(m_mutex);
    return m_readIndex != m_writeIndex;
}

void CZantTraceThread::ClearTraceBuffer() {
    const MutexLock lock(m_mutex);
    m_readIndex = m_writeIndex;
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
    const MutexLock lock(m_mutex);
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
    if (zantTraceUseSyslog.load(std::memory_order_relaxed))
        sendToSyslog(LOG_INFO, "--- GAP ---\n");
    else if (zantTrace.isTracingToScreen())
        printfToStdout("--- GAP ---%s\n", zantTraceProcessPrefix.load(std::memory_order_acquire));
}

void CZantTraceThread::printElement(const T_TraceElement& element) {
    const bool useSyslog = zantTraceUseSyslog.load(std::memory_order_relaxed);
    if (useSyslog && element.priority != T_TraceElement::notForSyslog)
        sendToSyslog(element.priority, element.text);
    else if (zantTrace.isTracingToScreen())
        printToStdout(element.text);

    if (const T_UserTraceOutputFunction output = funcUserTraceOutputPtr.load())
        output(element.text);
}
