#include "host/observer.h"
#include "host/status.h"

namespace host {

Observer::~Observer() = default;

const char* name(State state) {
    switch (state) {
    case State::Idle:
        return "idle";
    case State::Opening:
        return "opening";
    case State::Buffering:
        return "buffering";
    case State::Playing:
        return "playing";
    case State::Paused:
        return "paused";
    case State::Seeking:
        return "seeking";
    case State::Ended:
        return "ended";
    case State::Failed:
        return "failed";
    }
    return "unknown";
}

const char* name(SeekOutcome outcome) {
    switch (outcome) {
    case SeekOutcome::Succeeded:
        return "succeeded";
    case SeekOutcome::Failed:
        return "failed";
    case SeekOutcome::Aborted:
        return "aborted";
    case SeekOutcome::Replaced:
        return "replaced";
    }
    return "unknown";
}

} // namespace host
