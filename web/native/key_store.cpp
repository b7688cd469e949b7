#include "key_store.h"

namespace uva_native {

void KeyStore::add(std::uint64_t session, const host::KeyPair& pair) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_sessions[session][pair.id] = pair.key;
    for (const auto& [place, used] : m_places)
        if (used == session)
            m_keys->addKey(pair, place);
}

void KeyStore::remove(std::uint64_t session, const host::KeyBytes& id) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (const auto found = m_sessions.find(session); found != m_sessions.end())
        found->second.erase(id);
    for (const auto& [place, used] : m_places)
        if (used == session)
            m_keys->removeKey(id, place);
}

void KeyStore::removeAll(std::uint64_t session) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_sessions.erase(session);
    for (const auto& [place, used] : m_places)
        if (used == session)
            m_keys->removeKeys(place);
}

bool KeyStore::has(std::uint64_t session, const host::KeyBytes& id) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_sessions.find(session);
    return found != m_sessions.end() && found->second.count(id) > 0;
}

std::uint64_t KeyStore::makePlace() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_places[++m_lastPlace] = 0;
    return m_lastPlace;
}

void KeyStore::use(std::uint64_t place, std::uint64_t session) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_places.find(place);
    if (found == m_places.end() || found->second == session)
        return;
    found->second = session;
    m_keys->removeKeys(place);
    if (session == 0)
        return;
    for (const auto& [id, key] : m_sessions[session])
        m_keys->addKey({id, key}, place);
}

void KeyStore::removePlace(std::uint64_t place) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_places.erase(place);
    m_keys->removeKeys(place);
}

} // namespace uva_native
