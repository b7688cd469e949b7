#include "backend/media_facts.h"

#include "base/gstnox_time.h"

#include <algorithm>
#include <cmath>
#include <utility>

void MediaFacts::setSize(int width, int height) {
    const GLibLock lock(m_lock);
    if (width == m_size.width && height == m_size.height)
        return;
    m_size.width = width;
    m_size.height = height;
    m_hasChanged = true;
}

void MediaFacts::setPixelAspectRatio(double ratio) {
    constexpr double tolerance = 0.001;
    const GLibLock lock(m_lock);
    if (std::abs(ratio - m_size.pixelAspectRatio) <= tolerance)
        return;
    m_size.pixelAspectRatio = ratio;
    m_hasChanged = true;
}

void MediaFacts::setFrameRate(double framesPerSecond) {
    const GLibLock lock(m_lock);
    m_frameRate = framesPerSecond;
}

void MediaFacts::setDuration(gint64 duration) {
    const GLibLock lock(m_lock);
    m_hasChanged = m_hasChanged || duration != m_duration;
    m_duration = duration;
}

void MediaFacts::growDuration(gint64 duration) {
    const GLibLock lock(m_lock);
    if (m_duration == durationUninitialized || m_duration == durationUnknown)
        m_duration = std::max(m_duration, duration);
}

MediaFacts::Size MediaFacts::size() {
    const GLibLock lock(m_lock);
    return m_size;
}

gint64 MediaFacts::duration() {
    const GLibLock lock(m_lock);
    return m_duration;
}

std::optional<MediaFacts::Metadata> MediaFacts::takeChange() {
    const GLibLock lock(m_lock);
    if (!std::exchange(m_hasChanged, false))
        return std::nullopt;
    Metadata metadata{m_size};
    if (m_duration != durationUninitialized && m_duration != durationUnknown)
        metadata.seconds = static_cast<double>(m_duration) / nanosecondsPerSecond;
    return metadata;
}
