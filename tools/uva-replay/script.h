#ifndef UVA_REPLAY_SCRIPT_H
#define UVA_REPLAY_SCRIPT_H

#include "operations.h"
#include "record.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace replay {

using record::Entry;
using record::Operation;

/// A call of the host's, as it is made again.
struct Call {
    const Entry* entry = nullptr;
    const Entry* answer = nullptr;     ///< null: it never returned
    const Entry* inside = nullptr;     ///< the event in whose delivery it was made; null: none
    std::size_t position = 0;          ///< among the entries
    std::size_t after = 0;             ///< an answer: how many steps come before it
    const Entry* event = nullptr;      ///< an answer: to what
    std::int64_t source = 0;           ///< of samples: whose
    bool isVoid = false;               ///< of samples: a seek had come in between
    std::vector<const Entry*> samples; ///< which it hands over

    Operation operation() const { return static_cast<Operation>(entry->code); }
};

/// An event as the library delivered it.
struct Event {
    const Entry* entry = nullptr;
    std::size_t position = 0; ///< among the entries

    UVAEvent::Type type() const { return static_cast<UVAEvent::Type>(entry->code); }
};

/// What a record says the host did: steps, which follow one another, and answers, which follow what
/// the library asks for. Samples that nobody has asked for are a step. Looks into the record.
struct Script {
    std::vector<Call> steps;
    std::vector<Call> answers;
    std::vector<Event> events;
    std::map<std::uint32_t, std::vector<const Entry*>> data;   ///< a sample's payload, by number
    std::map<std::uint32_t, const Entry*> configs;             ///< by number
    std::map<std::uint32_t, std::vector<std::uint32_t>> added; ///< components, by event number
    std::uint64_t duration = 0;                                ///< nanoseconds
    std::string error; ///< why it cannot be played again; empty: it can
};

Script makeScript(const record::Record& record);

/// Whether it hands an event back: eventCompleted and writeData.
bool isAnswer(Operation operation);

/// A query, whose answer changes with time: nobody waits before it.
bool isQuery(Operation operation);

/// Whether they say the same, whatever numbers they name objects by.
bool alike(const record::Value& one, const record::Value& other);
bool alike(const record::Values& some, const record::Values& others);

/// A member of an event by its place in the row; 0 when there is none.
std::int64_t memberOf(const Entry& event, std::size_t index);

} // namespace replay

#endif
