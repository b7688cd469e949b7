#ifndef UVA_HOST_INBOX_H
#define UVA_HOST_INBOX_H

#include "host/clear_key.h"
#include "host/observer.h"
#include "util/mutex.h"
#include "util/scoped_handles.h"

#include <variant>
#include <vector>

namespace uvahost {

/// The key that samples wait for.
struct KeyNeeded {
    host::KeyBytes id{};
};

using Message = std::variant<host::Record, host::Status, host::SeekResult, KeyNeeded>;

/// Brings what an element reports from the event loop to the program's own thread.
class Inbox final : public host::Observer {
public:
    Inbox();

    int fd() const { return m_fd.get(); } ///< readable while there are messages
    std::vector<Message> takeAll();

    void onRecord(const host::Record& record) override { put(record); }
    void onStatus(const host::Status& status) override { put(status); }
    void onSeek(const host::SeekResult& result) override { put(result); }
    void onKeyNeeded(host::SourceId /*source*/, const host::KeyBytes& id,
                     double /*time*/) override {
        put(KeyNeeded{id});
    }

private:
    void put(Message message);

    const ScopedFd m_fd;
    Mutex m_mutex;
    std::vector<Message> m_messages GUARDED_BY(m_mutex);
};

} // namespace uvahost

#endif
