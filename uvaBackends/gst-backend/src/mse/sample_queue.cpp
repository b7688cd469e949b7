#include "mse/sample_queue.h"

#include <algorithm>

void SampleQueue::push(GstMiniObject* item) {
    m_items.push_back(Item::adopt(item));
}

void SampleQueue::pushCaps(GstPtr<GstCaps> caps) {
    if (m_currentCaps &&
        (caps.get() == m_currentCaps.get() || gst_caps_is_equal(caps.get(), m_currentCaps.get())))
        return;
    while (!m_items.empty() && GST_IS_CAPS(m_items.back().get()))
        m_items.pop_back();
    m_currentCaps = caps;
    push(GST_MINI_OBJECT_CAST(caps.release()));
}

void SampleQueue::pushBuffer(GstPtr<GstBuffer> buffer) {
    if (m_lastEnd == GST_CLOCK_TIME_NONE)
        GST_BUFFER_FLAG_SET(buffer.get(), GST_BUFFER_FLAG_DISCONT);
    m_bytes += gst_buffer_get_size(buffer.get());
    push(GST_MINI_OBJECT_CAST(buffer.release()));
}

void SampleQueue::pushEvent(GstPtr<GstEvent> event) {
    push(GST_MINI_OBJECT_CAST(event.release()));
}

bool SampleQueue::noteTimes(GstClockTime pts, GstClockTime duration) {
    if (pts == GST_CLOCK_TIME_NONE)
        return false;
    const bool isFirst = m_lastEnd == GST_CLOCK_TIME_NONE;
    const GstClockTime end = pts + (duration != GST_CLOCK_TIME_NONE ? duration : 0);
    if (isFirst)
        m_firstStart = pts;
    m_lastEnd = isFirst ? end : std::max(m_lastEnd, end);
    return isFirst;
}

SampleQueue::Item SampleQueue::pop() {
    Item item = std::move(m_items.front());
    m_items.pop_front();
    if (GST_IS_BUFFER(item.get()))
        m_bytes -= gst_buffer_get_size(GST_BUFFER_CAST(item.get()));
    return item;
}

SampleQueue::Items SampleQueue::flush(bool keepCaps) {
    Items dropped;
    dropped.swap(m_items);
    m_bytes = 0;
    m_firstStart = m_lastEnd = GST_CLOCK_TIME_NONE;
    const auto isCaps = [](const Item& item) { return GST_IS_CAPS(item.get()) != FALSE; };
    const auto last = std::find_if(dropped.rbegin(), dropped.rend(), isCaps);
    if (keepCaps && last != dropped.rend())
        m_items.push_back(*last);
    return dropped;
}
