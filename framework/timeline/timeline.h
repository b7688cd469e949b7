#ifndef TIMELINE_TIMELINE_H
#define TIMELINE_TIMELINE_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

/// Records what happens as Chrome trace events, for Perfetto and chrome://tracing.
///
/// The environment variable UVA_TIMELINE names the file. Everything that is linked with this
/// records into it: the library, the programs, the simulated sinks; several modules of one process
/// as well as several processes. Each adds its part under a lock of the file's and leaves a whole
/// JSON array behind it ten times a second, so what one that is killed leaves can be read. Times
/// are microseconds of CLOCK_MONOTONIC, tracks are threads, or numbers that the recorder gives
/// names.
///
/// While nobody records, a point costs one relaxed load and a branch. All functions are thread-safe
/// and wait for no file; none throws but for want of memory. A file takes 256 MB: what comes then
/// is left out, and the file says so.
namespace timeline {

using Clock = std::chrono::steady_clock;

constexpr const char* environmentVariable = "UVA_TIMELINE";

namespace detail {
[[gnu::visibility("hidden")]] extern std::atomic<bool> isOn;
}

/// Whether somebody records. Ask before an event is put together.
inline bool isOn() {
    return __builtin_expect(detail::isOn.load(std::memory_order_relaxed), false);
}

/// Begins to record if the environment names a file, to which is added. What follows the first call
/// of a module changes nothing. Empty; else why nothing is recorded, and what to do.
std::string begin();

/// Begins a file anew and names it in the environment, for what else is loaded or started. Before
/// other threads read the environment. As begin().
std::string beginFile(const std::string& path);

/// Writes out what was recorded so far. At the end of a process this comes by itself. Empty; else
/// why something is missing from the file. May wait for the disk.
std::string flush();

/// A number for flows and asynchronous spans that nobody else on this machine has.
std::uint64_t newId();

/// The same, of an object that stays where it is while the number is used.
inline std::uint64_t idOf(const void* object) {
    return reinterpret_cast<std::uintptr_t>(object);
}

/// A track of its own, by a number that is unique in the process; at least once before it is used.
/// Zero is the track of the calling thread.
void nameTrack(int track, const char* name);

/// Where and when something happens.
struct Place {
    int track = 0;
    Clock::time_point time = Clock::now();
};

/// One event, recorded when it goes. The functions below make those of each kind.
class Event {
public:
    /// The id of a flow or an asynchronous span; 0: none.
    Event(char phase, const char* category, std::string_view name, const Place& place = {},
          std::uint64_t id = 0);
    Event(const char* category, std::string_view name, const Place& begin, Clock::duration duration)
        : Event('X', category, name, begin) {
        last(duration);
    }
    ~Event();
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    ///@{
    /// An argument. Bytes that are no UTF-8 are replaced; null is an empty text.
    Event& with(const char* key, std::string_view value);
    Event& with(const char* key, const char* value);
    template <typename Number, std::enable_if_t<std::is_arithmetic_v<Number>, int> = 0>
    Event& with(const char* key, Number value) {
        if constexpr (std::is_same_v<Number, bool>)
            return withRaw(key, value ? "true" : "false");
        else if constexpr (std::is_floating_point_v<Number>)
            return withDouble(key, static_cast<double>(value));
        else
            return withRaw(key, std::to_string(value));
    }
    ///@}

private:
    friend class Span;

    void last(Clock::duration duration);
    Event& withRaw(const char* key, std::string_view json);
    Event& withDouble(const char* key, double value);

    std::string m_row;
    std::string m_arguments;
};

/// A moment, on the calling thread's track or another.
inline Event instant(const char* category, std::string_view name, const Place& place = {}) {
    return Event('i', category, name, place);
}

/// Values, each an argument, as a graph.
inline Event counter(const char* category, std::string_view name, const Place& place = {}) {
    return Event('C', category, name, place);
}

/// What lasted from the place's time on. Those of a track lie inside one another or apart.
inline Event span(const char* category, std::string_view name, const Place& place,
                  Clock::duration duration) {
    return Event(category, name, place, duration);
}

///@{
/// What overlaps others of its kind, or ends elsewhere, by a number of newId().
inline Event asyncBegin(const char* category, std::string_view name, std::uint64_t id) {
    return Event('b', category, name, Place(), id);
}
inline Event asyncEnd(const char* category, std::string_view name, std::uint64_t id) {
    return Event('e', category, name, Place(), id);
}
///@}

/// The ends of an arrow and what lies between, each inside a span of its track. Those of one name
/// and number belong together.
enum class Flow : char { Start = 's', Step = 't', End = 'f' };
/// Records one of them.
void flow(Flow which, const char* name, std::uint64_t id, const Place& place = {});

/// What lasts as long as its scope, on the thread's track.
class Span {
public:
    Span(const char* category, const char* name) {
        if (isOn())
            open(category, name);
    }
    ~Span() {
        if (m_open)
            close();
    }
    Span(const Span&) = delete;
    Span& operator=(const Span&) = delete;

    /// Whether it is recorded: then what its arguments cost is worth it.
    explicit operator bool() const { return m_open != nullptr; }
    /// An argument, see Event::with(). While nobody records it does nothing.
    template <typename Value>
    const Span& with(const char* key, const Value& value) const {
        if (m_open)
            m_open->event.with(key, value);
        return *this;
    }
    /// An end of an arrow, now, inside this span. While nobody records it does nothing.
    const Span& flow(Flow which, const char* name, std::uint64_t id) const {
        if (m_open)
            timeline::flow(which, name, id);
        return *this;
    }

private:
    struct Open {
        Open(const char* category, const char* name, const Place& begin)
            : since(begin.time), event('X', category, name, begin) {}
        const Clock::time_point since;
        Event event;
    };
    void open(const char* category, const char* name);
    void close();

    std::unique_ptr<Open> m_open;
};

} // namespace timeline

#endif
