#include "stop_signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

namespace qualify {

StopSignals::StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&signals, signal);
    sigprocmask(SIG_BLOCK, &signals, &m_before);
    m_descriptor.reset(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

int StopSignals::received() const {
    signalfd_siginfo info{};
    if (m_received == 0 && read(m_descriptor.get(), &info, sizeof info) == sizeof info)
        m_received = static_cast<int>(info.ssi_signo);
    return m_received;
}

} // namespace qualify
