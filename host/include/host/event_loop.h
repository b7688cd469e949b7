#ifndef HOST_EVENT_LOOP_H
#define HOST_EVENT_LOOP_H

#include "host/record.h"

#include <functional>
#include <memory>
#include <thread>

namespace host {

/// One thread that runs tasks in the order of their posting, and timers. Thread-safe.
class EventLoop {
public:
    using Task = std::function<void()>;
    using TimerId = unsigned long long; ///< 0 is none
    /// What time it is; any thread, never backwards.
    using TimeSource = std::function<Clock::time_point()>;

    /// The time of the timers and of all that runs on the loop. One that does not pass by itself
    /// is looked at again when a task is posted.
    explicit EventLoop(TimeSource time = Clock::now);

    /// As stop() with a bound of two seconds.
    ~EventLoop();

    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    Clock::time_point now() const; ///< any thread

    /// False when the loop has been stopped: the task is dropped.
    bool post(Task task);

    /// Runs the task every so often, the first time one interval from now. A late run is not made
    /// up for.
    TimerId startTimer(Clock::duration interval, Task task);

    /// Cancelled on the loop's thread, the timer's task is not run any more.
    void cancelTimer(TimerId id);

    /// Drops what is queued and ends the thread. False when the task under way did not return
    /// within the bound: the thread is left behind with all that it uses. Also false on the loop's
    /// own thread, which ends after its present task.
    bool stop(Clock::duration bound);

private:
    struct State;
    const std::shared_ptr<State> m_state;
    std::thread m_thread;
};

} // namespace host

#endif
