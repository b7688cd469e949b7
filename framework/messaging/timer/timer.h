#ifndef MESSAGING_TIMER_H
#define MESSAGING_TIMER_H

#include <cstdint>
#include <ctime>

/// A stopwatch on the monotonic clock. Bound to one thread at a time.
class Timer {
public:
    ///@{
    /// Take the time. A stop counts once: the next start begins anew.
    void start();
    void stop();
    ///@}

    ///@{
    /// Time from the start to the stop or, while the stopwatch runs, to now.
    double getElapsedTimeInMicroSec();
    double getElapsedTimeInMilliSec();
    double getElapsedTimeInSec();
    ///@}
    /// In seconds.
    double getElapsedTime() { return getElapsedTimeInSec(); }

    /// The start in microseconds of the monotonic clock.
    double startInMicroSec() const { return microseconds(startTime); }

private:
    static double microseconds(const timespec& time) {
        return static_cast<double>(static_cast<int64_t>(time.tv_sec) * 1000000 +
                                   time.tv_nsec / 1000);
    }

    /// 0 while running.
    int32_t stopped = 0;
    timespec startTime{};
    timespec endTime{};
};

#endif
