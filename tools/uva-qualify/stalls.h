#ifndef UVA_QUALIFY_STALLS_H
#define UVA_QUALIFY_STALLS_H

#include <atomic>
#include <map>
#include <thread>

namespace qualify {

/// How late this machine is by itself: a thread that sleeps a little, over and over, and looks how
/// much longer it was. Bound to one thread.
class Stalls {
public:
    Stalls();
    ~Stalls();
    Stalls(const Stalls&) = delete;
    Stalls& operator=(const Stalls&) = delete;

    void restart();
    // Since the restart, milliseconds.
    double worst() const { return m_worst; } ///< the longest that a thread has overslept
    /// What one thread of this process has waited for a processor in all; of the one that has
    /// waited longest.
    double total() const;

private:
    void watch();

    std::atomic<double> m_worst{0};
    std::map<int, double> m_before; ///< what each thread had waited at the restart, ms
    std::atomic<bool> m_ends{false};
    std::thread m_thread;
};

} // namespace qualify

#endif
