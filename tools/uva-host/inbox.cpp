#include "inbox.h"

#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

namespace uvahost {

Inbox::Inbox() : m_fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

Inbox::~Inbox() {
    if (m_fd >= 0)
        close(m_fd);
}

std::vector<Message> Inbox::takeAll() {
    eventfd_t count = 0;
    eventfd_read(m_fd, &count); // fails when there was nothing, which is fine
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_messages, {});
}

void Inbox::onRecord(const host::Record& record) {
    put(record);
}

void Inbox::onStatus(const host::Status& status) {
    put(status);
}

void Inbox::onSeek(double target, host::SeekOutcome outcome) {
    put(SeekAnswer{target, outcome});
}

void Inbox::onKeyNeeded(const host::KeyBytes& id) {
    put(KeyNeeded{id});
}

void Inbox::put(Message message) {
    {
        const std::lock_guard lock(m_mutex);
        m_messages.push_back(std::move(message));
    }
    eventfd_write(m_fd, 1);
}

} // namespace uvahost
