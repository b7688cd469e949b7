#include "inbox.h"

#include <sys/eventfd.h>
#include <utility>

namespace uvahost {

Inbox::Inbox() : m_fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

std::vector<Message> Inbox::takeAll() {
    eventfd_t count = 0;
    eventfd_read(fd(), &count); // fails when there was nothing, which is fine
    const MutexLock lock(m_mutex);
    return std::exchange(m_messages, {});
}

void Inbox::put(Message message) {
    {
        const MutexLock lock(m_mutex);
        m_messages.push_back(std::move(message));
    }
    eventfd_write(fd(), 1);
}

} // namespace uvahost
