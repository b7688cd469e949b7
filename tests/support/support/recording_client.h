#ifndef SUPPORT_RECORDING_CLIENT_H
#define SUPPORT_RECORDING_CLIENT_H

#include "uva/uva_client.h"
#include "uva/uva_event.h"
#include "uva/uva_media_backend.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace support {

/// A client that keeps every event in the order of delivery. A hook may look at an event on the
/// thread that delivers it, before it is stored.
class RecordingClient : public UVAClient {
public:
    using Hook = std::function<void(UVAEvent&)>;

    RecordingClient() = default;
    explicit RecordingClient(Hook hook) : m_hook(std::move(hook)) {}

    void deliverEvent(UVAEvent* event) override {
        std::unique_ptr<UVAEvent> owned(event);
        if (m_hook)
            m_hook(*owned);
        const std::lock_guard lock(m_mutex);
        m_events.push_back(std::move(owned));
    }

    std::vector<UVAEvent::Type> types() {
        const std::lock_guard lock(m_mutex);
        std::vector<UVAEvent::Type> types;
        for (const auto& event : m_events)
            types.push_back(event->type());
        return types;
    }

    int count(UVAEvent::Type type) {
        const auto all = types();
        return static_cast<int>(std::count(all.begin(), all.end(), type));
    }

    /// The newest event of the class that belongs to the type, null when there is none. It lives
    /// until clear().
    template <typename Event>
    const Event* last(UVAEvent::Type type) {
        const std::lock_guard lock(m_mutex);
        for (auto it = m_events.rbegin(); it != m_events.rend(); ++it)
            if ((*it)->type() == type)
                return static_cast<const Event*>(it->get());
        return nullptr;
    }

    void clear() {
        const std::lock_guard lock(m_mutex);
        m_events.clear();
    }

private:
    const Hook m_hook;
    std::mutex m_mutex; // guards m_events
    std::vector<std::unique_ptr<UVAEvent>> m_events;
};

/// A source list as a host hands it over: descriptions that own their texts.
class TestSource : public UVABackend::SourceDescription {
public:
    explicit TestSource(std::string address, int sourceType = BackendStreaming)
        : m_url(std::move(address)) {
        type = sourceType;
        url = m_url.c_str();
        userAgent = "test-agent/1.0";
        mimeType = "video/mp4";
    }
    ~TestSource() override = default;

private:
    const std::string m_url;
};

} // namespace support

#endif
