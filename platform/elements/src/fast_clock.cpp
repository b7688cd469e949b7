#include "fast_clock.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdlib>
#include <new>
#include <string_view>

namespace {

struct FastClock {
    GstSystemClock parent;
    GstClockTime start; // of the system's clock
    unsigned speed;
    /// Without a lock: time is read while the system clock holds those of its waits.
    std::atomic<GstClockTime> held;
};

struct FastClockClass {
    GstSystemClockClass parent;
};

G_DEFINE_TYPE(FastClock, fast_clock, GST_TYPE_SYSTEM_CLOCK)

FastClock* self(GstClock* clock) {
    return reinterpret_cast<FastClock*>(clock);
}

GstClockClass* systemClock() {
    return GST_CLOCK_CLASS(fast_clock_parent_class);
}

GstClockTime unheldTime(GstClock* clock) {
    const auto real = systemClock()->get_internal_time(clock) - self(clock)->start;
    return real * self(clock)->speed;
}

GstClockTime internalTime(GstClock* clock) {
    const auto time = unheldTime(clock);
    return time - std::min(time, self(clock)->held.load());
}

/// No more than what timers are late by, in real time. Who has read a later time reads it again
/// until then.
void holdFor(GstClock* clock, GstClockTime time) {
    constexpr GstClockTime tolerance = 5 * GST_MSECOND;
    const auto latest = time + tolerance * self(clock)->speed;
    const auto unheld = unheldTime(clock);
    const auto wanted = unheld - std::min(unheld, latest);
    auto& held = self(clock)->held;
    for (auto before = held.load(); before < wanted;)
        if (held.compare_exchange_weak(before, wanted))
            return;
}

/// The system clock's own wait measures by our time but sleeps in real time: it is given the time
/// that is as far away in both, again if ours stood still meanwhile.
GstClockReturn wait(GstClock* clock, GstClockEntry* entry, GstClockTimeDiff* jitter) {
    const auto due = GST_CLOCK_ENTRY_TIME(entry);
    auto now = gst_clock_get_time(clock);
    if (jitter)
        *jitter = std::min<GstClockTimeDiff>(GST_CLOCK_DIFF(due, now), 0);
    GstClockReturn result = GST_CLOCK_OK;
    do {
        if (due > now)
            GST_CLOCK_ENTRY_TIME(entry) = now + (due - now) / self(clock)->speed;
        result = systemClock()->wait(clock, entry, nullptr);
        GST_CLOCK_ENTRY_TIME(entry) = due;
        now = gst_clock_get_time(clock);
    } while (due > now && (result == GST_CLOCK_OK || result == GST_CLOCK_EARLY));
    if (result != GST_CLOCK_EARLY)
        return result;
    holdFor(clock, due);
    return GST_CLOCK_OK;
}

void fast_clock_init(FastClock* clock) {
    clock->speed = 1;
    new (&clock->held) std::atomic<GstClockTime>(0);
    clock->start = systemClock()->get_internal_time(GST_CLOCK(clock));
}

void fast_clock_class_init(FastClockClass* klass) {
    auto* clock = GST_CLOCK_CLASS(klass);
    clock->get_internal_time = internalTime;
    clock->wait = wait;
    clock->wait_async = nullptr; // no sink of the set asks for one
}

} // namespace

namespace noxelements {

unsigned playSpeed() {
    constexpr unsigned most = 1000;
    const char* const text = std::getenv("NOX_PLAY_SPEED");
    if (!text || !*text)
        return 1;
    const std::string_view digits(text);
    unsigned speed = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), speed);
    if (error == std::errc() && end == digits.data() + digits.size() && speed >= 1 && speed <= most)
        return speed;
    g_printerr("NOX_PLAY_SPEED='%s' is no whole number from 1 to %u: playing in real time\n", text,
               most);
    return 1;
}

GstClock* makeFastClock(unsigned speed) {
    auto* const clock = GST_CLOCK(g_object_new(fast_clock_get_type(), nullptr));
    gst_object_ref_sink(clock);
    self(clock)->speed = speed;
    return clock;
}

} // namespace noxelements
