#ifndef ZANTSH_EXCHANGE_H
#define ZANTSH_EXCHANGE_H

#include "interrupt.h"
#include "util/scoped_handles.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>

namespace zantsh {

enum class Reply { ok, error };

/// The right to talk to shells: all replies go to one fixed path, so one client at a time has it.
/// Others wait at a lock file.
///
/// Replies look alike, and a client that died or gave up may have left commands behind whose
/// replies are still to come. An exchange begins when the last of them is through.
class Exchange {
public:
    /// Takes the lock, opens the reply socket and waits until the shell is idle. Throws NoShell.
    /// All that waits here calls `whileWaiting` over and over, and ends with what that throws.
    Exchange(const std::string& socketName, std::chrono::milliseconds timeout,
             std::function<void()> whileWaiting = checkInterrupt);
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    /// Sends a command that is done at once, and waits for its reply. Gives the process that serves
    /// the shell; 0 if it cannot be seen from here. Throws NoShell.
    pid_t ask(const std::string& line);
    /// Sends a command line. Throws NoShell.
    void send(const std::string& line);
    /// The reply, nothing if there is none within that time. Throws NoShell when the process that
    /// was found ends.
    std::optional<Reply> waitForReply(std::chrono::milliseconds time);

private:
    using Clock = std::chrono::steady_clock;
    /// Removes the reply socket in the end, also of an exchange that does not come about.
    struct ReplyPath {
        ~ReplyPath();
        bool isOpen = false;
    };

    void lock();
    void openReplySocket();
    void waitUntilIdle();
    void pauseABit() const;
    void sendDatagram(const std::string& bytes);
    std::string path() const { return "/tmp/" + m_socketName; }

    const std::string m_socketName;
    const Clock::time_point m_deadline;
    const std::function<void()> m_whileWaiting;
    uid_t m_owner = 0;
    pid_t m_process = 0;
    ScopedFd m_lock;
    ReplyPath m_replyPath;
    ScopedFd m_socket;
};

/// Longest command line.
constexpr size_t maxLineLength = 1022;

/// True when somebody serves a socket of that name, whether it may be used or not.
bool shellListens(const std::string& socketName);

} // namespace zantsh

#endif
