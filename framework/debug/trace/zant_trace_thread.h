#ifndef ZANT_TRACE_THREAD_H
#define ZANT_TRACE_THREAD_H

#include "debug/trace/trace_line.h"
#include "debug/trace/zant_trace.h"
#include "messaging/thread/thread_object.h"
#include "util/mutex.h"

#include <cstdint>

/// A line on its way from the tracing thread to the trace thread.
struct T_TraceElement {
    char text[TraceLine::size];
    /// The line's trace counter; 0 for text without header.
    uint16_t counter;
    /// Severity ORed with the syslog facility, or TraceSettings::notForSyslog.
    int32_t priority;
};

/// Takes slow output off the tracing threads: they fill a ring of preallocated lines, this thread
/// writes them out one by one, at most a hundred a second, and marks where lines were lost.
///
/// All functions are thread-safe; PrintNextTrace belongs to the thread that prints. Nothing is
/// allocated. The ring is left untouched by the constructor: in static storage it is zero and costs
/// no resident memory until it is used.
class CZantTraceThread : public CThreadObject {
public:
    CZantTraceThread();
    ~CZantTraceThread() override { StopThreadAndWait(); }

    /// The index of the element after this one; the ring ends at 1999.
    static int32_t GetNextIndex(int32_t index) { return index == highestIndex ? 0 : index + 1; }

    /// Locks the ring and hands out the text of a free element, to be filled and given back with
    /// PutTraceString. The lock is held between the two on purpose: one producer at a time. Null,
    /// and not locked, when the ring is full.
    char* GetFreeTraceElement(uint16_t counter) TRY_ACQUIRE(true, m_ringMutex);

    /// The same for the whole element, whose fields the caller sets.
    T_TraceElement* GetFreeElement() TRY_ACQUIRE(true, m_ringMutex);

    /// Queues the element that was handed out last and unlocks the ring.
    void PutTraceString() RELEASE(m_ringMutex);

    /// True when a line is pending.
    bool IsSomethingToPrint() EXCLUDES(m_ringMutex);

    /// Discards all pending lines.
    void ClearTraceBuffer() EXCLUDES(m_ringMutex);

    /// Prints what is pending until the thread is stopped. Lines that are pending then are kept for
    /// the next start, and lost at the end of the process.
    void ThreadWorkFunction() override;

    /// Writes out the next pending line, if there is one, after a gap line if lines were lost.
    void PrintNextTrace() EXCLUDES(m_ringMutex);

private:
    static constexpr int32_t highestIndex = 1999;

    bool takeNextElement(T_TraceElement& element) EXCLUDES(m_ringMutex);
    static void printGap();
    static void callUserOutput(T_UserTraceOutputFunction output, const char* line);
    static void printElement(const T_TraceElement& element);

    /// Guards the indices and the filling of an element. Nothing else is locked under it.
    Mutex m_ringMutex;
    int32_t m_readIndex GUARDED_BY(m_ringMutex) = 0;
    int32_t m_writeIndex GUARDED_BY(m_ringMutex) = 0;
    T_TraceElement m_ring[highestIndex + 1] GUARDED_BY(m_ringMutex);
    /// Of the printing thread alone.
    uint16_t m_lastPrintedCounter = 0;
};

/// The one trace thread of the process. Never destroyed.
extern CZantTraceThread& zantTraceThread;

#endif
