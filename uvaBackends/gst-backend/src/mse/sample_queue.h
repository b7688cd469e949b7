#ifndef SAMPLE_QUEUE_H
#define SAMPLE_QUEUE_H

#include "base/gst_ptr.h"

#include <gst/gst.h>

#include <deque>

/// What the host has delivered and the appsrc has not asked for: caps, buffers and events in their
/// order, and the times of what was delivered since the last flush. Data only: whoever shares it
/// locks.
///
/// What is dropped is handed to the caller: with a buffer goes the host's sample, whose destructor
/// is the host's code and runs under no lock.
class SampleQueue {
public:
    using Item = GstPtr<GstMiniObject>;
    using Items = std::deque<Item>;

    /// Caps that are equal to the last ones are left out; caps that no buffer follows give way.
    void pushCaps(GstPtr<GstCaps> caps);
    /// With times: DISCONT marks the first since the last flush.
    void pushBuffer(GstPtr<GstBuffer> buffer);
    void pushEvent(GstPtr<GstEvent> event);

    /// A sample of these times, with a buffer or without, comes next. Whether it is the first with
    /// a time since the last flush. Nanoseconds or none.
    bool noteTimes(GstClockTime pts, GstClockTime duration);

    /// Not when it is empty.
    Item pop();
    /// Empties the queue; with `keepCaps` its last caps stay.
    [[nodiscard]] Items flush(bool keepCaps);

    std::size_t size() const { return m_items.size(); }
    /// From the first to the end of the latest sample, when there is one: lastEnd() is a time.
    GstClockTime firstStart() const { return m_firstStart; }
    GstClockTime lastEnd() const { return m_lastEnd; }
    guint64 bytes() const { return m_bytes; }

private:
    void push(GstMiniObject* item);

    Items m_items;
    guint64 m_bytes = 0;
    GstPtr<GstCaps> m_currentCaps; // the last ones queued
    GstClockTime m_firstStart = GST_CLOCK_TIME_NONE;
    GstClockTime m_lastEnd = GST_CLOCK_TIME_NONE;
};

#endif
