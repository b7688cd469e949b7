#ifndef UVA_NATIVE_KEY_STORE_H
#define UVA_NATIVE_KEY_STORE_H

#include "host/clear_key.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>

namespace uva_native {

/// The keys of a page, by session, and the players that use them. A player's key system is set once
/// when it opens, and a page may give it its keys, or other ones, later: so each player has a place
/// of its own in the key system, to which the keys of its present session go. Thread-safe.
class KeyStore {
public:
    explicit KeyStore(std::shared_ptr<host::ClearKey> keys) : m_keys(std::move(keys)) {}

    void add(std::uint64_t session, const host::KeyPair& pair);
    void remove(std::uint64_t session, const host::KeyBytes& id);
    void removeAll(std::uint64_t session);
    bool has(std::uint64_t session, const host::KeyBytes& id) const;

    /// A player's place in the key system; no session's keys are in it.
    std::uint64_t makePlace();
    /// The place has the keys of this session, and of no other, from now on. 0: none.
    void use(std::uint64_t place, std::uint64_t session);
    void removePlace(std::uint64_t place);

private:
    using Keys = std::map<host::KeyBytes, host::KeyBytes>; // by id

    const std::shared_ptr<host::ClearKey> m_keys;
    mutable std::mutex m_mutex;
    std::map<std::uint64_t, Keys> m_sessions;        // guarded
    std::map<std::uint64_t, std::uint64_t> m_places; // guarded: to sessions
    std::uint64_t m_lastPlace = 0;                   // guarded
};

} // namespace uva_native

#endif
