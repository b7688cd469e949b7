#ifndef UVA_HOST_INBOX_H
#define UVA_HOST_INBOX_H

#include "host/clear_key.h"
#include "host/observer.h"

#include <mutex>
#include <variant>
#include <vector>

namespace uvahost {

struct SeekAnswer {
    double target = 0;
    host::SeekOutcome outcome = host::SeekOutcome::Failed;
};

/// The key that samples wait for.
struct KeyNeeded {
    host::KeyBytes id{};
};

using Message = std::variant<host::Record, host::Status, SeekAnswer, KeyNeeded>;

/// Brings what an element reports from the event loop to the program's own thread.
class Inbox final : public host::Observer {
public:
    Inbox();
    ~Inbox() override;

    Inbox(const Inbox&) = delete;
    Inbox& operator=(const Inbox&) = delete;

    int fd() const { return m_fd; } ///< readable while there are messages
    std::vector<Message> takeAll();

    void onRecord(const host::Record& record) override;
    void onStatus(const host::Status& status) override;
    void onSeek(double target, host::SeekOutcome outcome) override;
    void onKeyNeeded(const host::KeyBytes& id);

private:
    void put(Message message);

    const int m_fd;
    std::mutex m_mutex; // guards m_messages
    std::vector<Message> m_messages;
};

} // namespace uvahost

#endif
