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

MediaSources::Visit::Visit(MediaSources& sources, Purpose purpose, const GstMseBin* source)
    : m_sources(sources), m_purpose(purpose), m_source(source), m_thread(g_thread_self()) {
    const GLibLock lock(m_sources.m_lock);
    m_sources.m_visits.push_back(this);
}

MediaSources::Visit::~Visit() {
    const GLibLock lock(m_sources.m_lock);
    auto& visits = m_sources.m_visits;
    visits.erase(std::find(visits.begin(), visits.end(), this));
    m_sources.m_visitEnded.broadcast(m_sources.m_lock);
}

template <typename Predicate>
bool MediaSources::has(Predicate predicate) const {
    return std::any_of(m_visits.begin(), m_visits.end(), predicate);
}

void MediaSources::waitForWriters(const GstMseBin* source) {
    const GLibLock lock(m_lock);
    const auto isWaitedFor = [source](const Visit* visit) {
        return visit->isAnother(Visit::Write) && (source == nullptr || visit->m_source == source);
    };
    while (has(isWaitedFor))
        m_visitEnded.wait(m_lock);
}

void MediaSources::waitForRequests() {
    constexpr gint64 bound = G_USEC_PER_SEC / 2;
    const gint64 end = g_get_monotonic_time() + bound;
    const GLibLock lock(m_lock);
    const auto isWaitedFor = [](const Visit* visit) { return visit->isAnother(Visit::Request); };
    while (has(isWaitedFor) && m_visitEnded.waitUntil(m_lock, end)) {
    }
}
