#include "mse/media_sources.h"

#include <algorithm>

void MediaSources::add(const Source& source) {
    const GLibLock lock(m_lock);
    m_sources[source->id()] = source;
}

MediaSources::Source MediaSources::find(unsigned int id) {
    const GLibLock lock(m_lock);
    const auto found = m_sources.find(id);
    return found != m_sources.end() ? found->second : nullptr;
}

MediaSources::Source MediaSources::take(unsigned int id) {
    const GLibLock lock(m_lock);
    const auto node = m_sources.extract(id);
    return node.empty() ? nullptr : node.mapped();
}

std::vector<MediaSources::Source> MediaSources::all() {
    const GLibLock lock(m_lock);
    std::vector<Source> all;
    for (const auto& [id, source] : m_sources)
        all.push_back(source);
    return all;
}

MediaSources::Writer::Writer(MediaSources& sources, const GstMseBin& writtenTo)
    : m_sources(sources), m_writtenTo(&writtenTo), m_thread(g_thread_self()) {
    const GLibLock lock(m_sources.m_lock);
    m_sources.m_writers.push_back(this);
}

MediaSources::Writer::~Writer() {
    const GLibLock lock(m_sources.m_lock);
    auto& writers = m_sources.m_writers;
    writers.erase(std::find(writers.begin(), writers.end(), this));
    m_sources.m_writerLeft.broadcast();
}

void MediaSources::waitForWriters(const GstMseBin* source) {
    const GLibLock lock(m_lock);
    const auto isWaitedFor = [source](const Writer* writer) {
        return writer->m_thread != g_thread_self() &&
               (source == nullptr || writer->m_writtenTo == source);
    };
    while (std::any_of(m_writers.begin(), m_writers.end(), isWaitedFor))
        m_writerLeft.wait(m_lock);
}
