#ifndef CHAOS_WALK_H
#define CHAOS_WALK_H

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <random>
#include <string>

/// What the walks share: numbers that a seed gives again, and promises that are kept in time.
namespace chaos {

using std::chrono::milliseconds;

/// What everything may take beyond the bound that is documented for it.
constexpr milliseconds grace{1000};

class Random {
public:
    explicit Random(std::uint64_t seed) : m_engine(seed) {}

    unsigned int below(unsigned int bound) { return static_cast<unsigned int>(m_engine() % bound); }
    bool oneIn(unsigned int chances) { return below(chances) == 0; }
    template <typename Value>
    Value pick(std::initializer_list<Value> values) {
        return values.begin()[below(static_cast<unsigned int>(values.size()))];
    }
    double time(double most) { return below(10000) * most / 10000; } ///< seconds
    Random child() { return Random(m_engine()); }

private:
    std::mt19937_64 m_engine;
};

/// Says what does not hold, and ends the process with exit code 1. Any thread.
[[noreturn]] void fail(const std::string& what);

/// Ends the process unless the condition holds.
inline void require(bool holds, const std::string& what) {
    if (!holds)
        fail(what);
}

/// Time in which no thread of the box waited for a processor: what a busy machine takes is not
/// counted, and what hangs does not wait for one.
milliseconds fairTime();

/// Where a call of the host may hang, from construction to destruction. When it takes a second more
/// than its bound the process says so and stops (SIGSTOP), for somebody to look at its threads.
class Bounded {
public:
    Bounded(const char* what, milliseconds bound);
    ~Bounded();
    Bounded(const Bounded&) = delete;
    Bounded& operator=(const Bounded&) = delete;
};

template <typename Call>
auto within(milliseconds bound, const char* what, Call call) {
    const Bounded bounded(what, bound);
    return call();
}

void pause(milliseconds time);

/// The predicate must come true within the bound; looks every millisecond.
template <typename Predicate>
void eventually(milliseconds bound, const char* what, Predicate predicate) {
    const Bounded bounded(what, bound);
    while (!predicate())
        pause(milliseconds(1));
}

} // namespace chaos

#endif
