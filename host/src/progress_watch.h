#ifndef HOST_PROGRESS_WATCH_H
#define HOST_PROGRESS_WATCH_H

#include "host/record.h"

#include <algorithm>

namespace host {

/// How long nothing has moved, counted from tick to tick. A tick that comes late counts no more
/// than two: a process that was stopped for a minute has not watched a stream stall for a minute.
class ProgressWatch {
public:
    explicit ProgressWatch(Clock::duration tick) : m_tick(tick) {}

    void restart() { m_still = Clock::duration::zero(); }

    Clock::duration tick(Clock::time_point now) {
        m_still += std::clamp<Clock::duration>(now - m_last, Clock::duration::zero(), 2 * m_tick);
        m_last = now;
        return m_still;
    }

private:
    const Clock::duration m_tick;
    Clock::duration m_still{};
    Clock::time_point m_last = Clock::now();
};

} // namespace host

#endif
