#include "host/event_loop.h"

#include "locks/mutex.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <utility>

namespace host {

/// Shared with the thread, so that a thread left behind has something to stand on.
struct EventLoop::State {
    explicit State(TimeSource time) : now(std::move(time)) {}

    struct Timer {
        Clock::time_point due;
        Clock::duration interval;
        Task task;
    };

    const TimeSource now;
    locks::Mutex mutex; // tasks run without it
    std::condition_variable changed;
    std::deque<Task> tasks GUARDED_BY(mutex);
    std::map<TimerId, Timer> timers GUARDED_BY(mutex);
    TimerId lastTimer GUARDED_BY(mutex) = 0;
    bool stopping GUARDED_BY(mutex) = false;
    bool ended GUARDED_BY(mutex) = false;

    void run();
    Task next(locks::Lock<std::mutex>& lock) REQUIRES(mutex);
    Task takeDueTimer() REQUIRES(mutex);
    Clock::time_point firstDue() const REQUIRES(mutex);
};

void EventLoop::State::run() {
    locks::Lock lock(mutex);
    while (auto task = next(lock)) {
        lock.unlock();
        task();
        task = nullptr; // what it holds goes without the lock
        lock.lock();
    }
    ended = true;
    changed.notify_all();
}

/// Waits for something to do; empty when the loop stops. Due timers come first: they are few, and a
/// flood of events must not starve the watchdogs.
EventLoop::Task EventLoop::State::next(locks::Lock<std::mutex>& lock) {
    while (!stopping) {
        if (auto task = takeDueTimer())
            return task;
        if (!tasks.empty()) {
            Task task = std::move(tasks.front());
            tasks.pop_front();
            return task;
        }
        if (timers.empty())
            changed.wait(lock);
        else
            changed.wait_for(lock, firstDue() - now());
    }
    return nullptr;
}

EventLoop::Task EventLoop::State::takeDueTimer() {
    const auto time = now();
    for (auto& [id, timer] : timers) {
        if (timer.due > time)
            continue;
        timer.due = time + timer.interval;
        return timer.task;
    }
    return nullptr;
}

Clock::time_point EventLoop::State::firstDue() const {
    auto first = Clock::time_point::max();
    for (const auto& [id, timer] : timers)
        first = std::min(first, timer.due);
    return first;
}

EventLoop::EventLoop(TimeSource time)
    : m_state(std::make_shared<State>(std::move(time))),
      m_thread([state = m_state] { state->run(); }) {}

EventLoop::~EventLoop() {
    stop(std::chrono::seconds(2));
}

Clock::time_point EventLoop::now() const {
    return m_state->now();
}

bool EventLoop::post(Task task) {
    {
        const locks::Lock lock(m_state->mutex);
        if (m_state->stopping)
            return false;
        m_state->tasks.push_back(std::move(task));
    }
    m_state->changed.notify_all();
    return true;
}

EventLoop::TimerId EventLoop::startTimer(Clock::duration interval, Task task) {
    TimerId id = 0;
    {
        const locks::Lock lock(m_state->mutex);
        id = ++m_state->lastTimer;
        m_state->timers[id] = {now() + interval, interval, std::move(task)};
    }
    m_state->changed.notify_all();
    return id;
}

void EventLoop::cancelTimer(TimerId id) {
    Task dropped;
    const locks::Lock lock(m_state->mutex);
    const auto it = m_state->timers.find(id);
    if (it == m_state->timers.end())
        return;
    dropped = std::move(it->second.task);
    m_state->timers.erase(it);
}

bool EventLoop::stop(Clock::duration bound) {
    if (!m_thread.joinable())
        return true;
    std::deque<Task> droppedTasks;
    std::map<TimerId, State::Timer> droppedTimers;
    bool ended = false;
    {
        locks::Lock lock(m_state->mutex);
        m_state->stopping = true;
        droppedTasks.swap(m_state->tasks);
        droppedTimers.swap(m_state->timers);
        m_state->changed.notify_all();
        const bool own = m_thread.get_id() == std::this_thread::get_id();
        ended = !own && m_state->changed.wait_for(lock, bound, [this]() REQUIRES(m_state->mutex) {
            return m_state->ended;
        });
    }
    if (ended)
        m_thread.join();
    else
        m_thread.detach();
    return ended;
}

} // namespace host
