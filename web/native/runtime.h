#ifndef UVA_NATIVE_RUNTIME_H
#define UVA_NATIVE_RUNTIME_H

#include "host/backend_library.h"
#include "host/capability_query.h"
#include "host/clear_key.h"
#include "host/event_loop.h"
#include "host/media_element.h"
#include "key_store.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace uva_native {

/// What all players of this process share: the loaded library, the loop on which it is used, and
/// the keys. It lives as long as the process, as the library's threads do. Thread-safe.
class Runtime {
public:
    static Runtime& instance();

    /// Null: see `error()`.
    const std::shared_ptr<host::BackendLibrary>& library() const { return m_loaded.library; }
    const std::string& error() const { return m_loaded.error; }
    const std::shared_ptr<host::EventLoop>& loop() const { return m_loop; }
    const std::shared_ptr<host::ClearKey>& clearKey() const { return m_clearKey; }
    KeyStore& keys() { return m_keys; }

    /// Asks the backend, which may take until it answers; at most some seconds.
    host::CapabilityAnswer canPlayType(const std::string& type);

    /// As MediaElement::Options: for the next player.
    host::MediaElement::Options elementOptions();

private:
    Runtime();

    const std::shared_ptr<host::EventLoop> m_loop;
    const std::shared_ptr<host::ClearKey> m_clearKey;
    host::BackendLibrary::Loaded m_loaded;
    KeyStore m_keys;
    std::atomic<host::SourceId> m_players{0};
    std::mutex m_askMutex;
    std::unique_ptr<host::MediaElement> m_asker; // guarded; is only asked
};

} // namespace uva_native

#endif
