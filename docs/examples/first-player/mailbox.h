#ifndef FIRST_PLAYER_MAILBOX_H
#define FIRST_PLAYER_MAILBOX_H

#include "uva/uva_client.h"
#include "uva/uva_event.h"

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>

/// Takes events from the threads that raise them to the one that drives the backend.
class Mailbox final : public UVAClient {
public:
    void deliverEvent(UVAEvent* event) override {
        const std::lock_guard lock(m_mutex);
        m_events.emplace_back(event);
        m_arrived.notify_one();
    }

    std::unique_ptr<UVAEvent> wait() {
        std::unique_lock lock(m_mutex);
        m_arrived.wait(lock, [this] { return !m_events.empty(); });
        auto event = std::move(m_events.front());
        m_events.pop_front();
        return event;
    }

private:
    std::mutex m_mutex; // guards m_events
    std::condition_variable m_arrived;
    std::deque<std::unique_ptr<UVAEvent>> m_events;
};

#endif
