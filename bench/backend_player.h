#ifndef BACKEND_PLAYER_H
#define BACKEND_PLAYER_H

#include "bench_support.h"
#include "uva/uva_backend.h"
#include "uva/uva_client.h"
#include "uva/uva_event.h"
#include "uva/uva_media_backend.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

namespace bench {

/// The two entries of a backend library, linked or loaded.
struct BackendEntries {
    UVAMediaBackend* (*request)(UVABackend::UVABackendType type, UVAClient* client);
    bool (*release)(UVAMediaBackend* backend);
};

/// The least of a host: a backend that plays a URL, and gets its decoders at once.
class BackendPlayer : UVAClient {
public:
    BackendPlayer(const BackendEntries& entries, const std::string& url)
        : m_release(entries.release), m_backend(entries.request(UVABackend::VideoElement, this)) {
        if (m_backend == nullptr)
            fail("the library gives no backend");
        UVABackend::SourceDescription* sources[] = {new Source(url), nullptr};
        m_backend->initBackend("bench", sources, false);
    }
    BackendPlayer(const BackendPlayer&) = delete;
    ~BackendPlayer() override { m_release(m_backend); }

    void play() { m_backend->play(); }
    void pause() { m_backend->pause(); }
    void seek(double seconds) {
        m_backend->setPosition(seconds);
        const CancelDataRequestsAsyncEvent cancelled(seconds);
        m_backend->eventCompleted(&cancelled, true);
    }
    void waitForEnd() {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_ended; });
    }

private:
    struct Source final : UVABackend::SourceDescription {
        explicit Source(std::string address) : text(std::move(address)) {
            type = BackendStreaming;
            url = text.c_str();
        }
        const std::string text;
    };

    void deliverEvent(UVAEvent* event) override {
        const std::unique_ptr<UVAEvent> owned(event);
        if (event->type() == UVAEvent::BackendResourceRequestAsync)
            m_backend->eventCompleted(static_cast<UVAAsyncEvent*>(event), true);
        if (event->type() != UVAEvent::PlaybackFinished)
            return;
        const std::lock_guard lock(m_mutex);
        m_ended = true;
        m_changed.notify_all();
    }

    bool (*const m_release)(UVAMediaBackend*);
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_ended = false; // guarded by m_mutex
    UVAMediaBackend* const m_backend;
};

/// The file of the command line as a URL.
inline std::string fileUrl() {
    return "file://" + file;
}

} // namespace bench

#endif
