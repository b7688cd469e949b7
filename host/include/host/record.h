#ifndef HOST_RECORD_H
#define HOST_RECORD_H

#include <chrono>
#include <string>
#include <variant>
#include <vector>

namespace host {

/// CLOCK_MONOTONIC: times of several processes of one machine can be laid side by side.
using Clock = std::chrono::steady_clock;

using Value = std::variant<bool, long long, double, std::string>;

/// An argument of an operation or event. A plain value.
struct Argument {
    std::string name;
    Value value;
};

/// One thing that happened between host and backend. A plain value.
struct Record {
    /// Down to the backend, or up from it.
    enum class Kind { Operation, Event };

    Kind kind = Kind::Event;
    std::string name;                ///< of the operation, or of the event's type
    Clock::time_point time;          ///< an operation's beginning, an event's delivery
    Clock::duration duration{};      ///< operations only
    bool onLoop = true;              ///< false: an operation made while an event was delivered
    std::vector<Argument> arguments; ///< an operation's last one is its "result"
};

/// The names of all events that a backend may raise.
std::vector<std::string> eventNames();

} // namespace host

#endif
