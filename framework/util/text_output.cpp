#include "util/text_output.h"

#include "util/cancellation_block.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <syslog.h>

namespace {

/// Keeps SIGPIPE from the calling thread for a scope.
class SigpipeHold {
public:
    SigpipeHold() {
        sigemptyset(&m_sigpipe);
        sigaddset(&m_sigpipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_sigpipe, &m_before);
    }
    ~SigpipeHold() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    SigpipeHold(const SigpipeHold&) = delete;
    SigpipeHold& operator=(const SigpipeHold&) = delete;

    /// Takes back the signal that a failed write left pending. One that was blocked before belongs
    /// to whoever blocked it.
    void discard() {
        if (sigismember(&m_before, SIGPIPE))
            return;
        const timespec atOnce{};
        while (sigtimedwait(&m_sigpipe, nullptr, &atOnce) < 0 && errno == EINTR) {
        }
    }

private:
    sigset_t m_sigpipe;
    sigset_t m_before;
};

} // namespace

void printToStdout(const char* text) {
    const CancellationBlock uncancelled; // or the output's lock would go with the thread
    SigpipeHold held;
    const bool written = fputs(text, stdout) != EOF;
    const bool flushed = fflush(stdout) != EOF;
    // There is nowhere left to report a standard output that fails.
    if (!written || !flushed)
        held.discard();
}

void printfToStdout(const char* format, ...) {
    char text[2000];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length >= 0)
        printToStdout(text);
}

void sendToSyslog(int priority, const char* text) {
    const CancellationBlock uncancelled;
    syslog(priority, "%s", text);
}
