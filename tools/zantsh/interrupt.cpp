#include "interrupt.h"

#include <atomic>
#include <csignal>
#include <unistd.h>

namespace zantsh {

namespace {

std::atomic<const char*> pathToRemove{nullptr};
std::atomic<bool> isInterrupted{false};

void endBySignal(int signal) {
    if (const char* const path = pathToRemove)
        unlink(path);
    std::signal(signal, SIG_DFL);
    raise(signal);
}

void noteInterrupt(int) {
    isInterrupted = true;
}

} // namespace

void removeOnSignals(const char* path) {
    pathToRemove = path;
}

void cleanUpOnSignals() {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        std::signal(signal, endBySignal);
}

void catchInterrupts() {
    struct sigaction action {};
    action.sa_handler = noteInterrupt; // without SA_RESTART: waits end
    sigaction(SIGINT, &action, nullptr);
}

bool takeInterrupt() {
    return isInterrupted.exchange(false);
}

void checkInterrupt() {
    if (takeInterrupt())
        throw Interrupted();
}

} // namespace zantsh
