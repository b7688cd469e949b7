#ifndef UVA_QUALIFY_STALLS_H
#define UVA_QUALIFY_STALLS_H

#include <atomic>
#include <thread>

namespace qualify {

/// How late this machine is by itself: a thread that sleeps a little, over and over, and looks how
/// much longer it was. Thread-safe.
class Stalls {
public:
    Stalls();
    ~Stalls();
    Stalls(const Stalls&) = delete;
    Stalls& operator=(const Stalls&) = delete;

    void restart() { m_worst = 0; }
    double worst() const { return m_worst; } ///< since the restart, milliseconds

private:
    void watch();

    std::atomic<double> m_worst{0};
    std::atomic<bool> m_ends{false};
    std::thread m_thread;
};

} // namespace qualify

#endif
