#include "host/observer.h"
#include "host/sample_stream.h"

#include <array>

namespace host {

Observer::~Observer() = default;
void Observer::onEnd(double /*position*/) {}
void Observer::onStarved(SourceId /*source*/) {}
void Observer::onFilled(SourceId /*source*/) {}
void Observer::onKeyNeeded(SourceId /*source*/, const KeyBytes& /*id*/, double /*time*/) {}

SampleStream::~SampleStream() = default;
void SampleStream::listen(Listener /*listener*/) {}

namespace {

template <std::size_t Count>
const char* nameIn(const std::array<const char*, Count>& names, std::size_t index) {
    return index < Count ? names[index] : "unknown";
}

} // namespace

const char* name(State state) {
    static constexpr std::array names = {"idle",   "opening", "buffering", "playing",
                                         "paused", "seeking", "ended",     "failed"};
    return nameIn(names, static_cast<std::size_t>(state));
}

const char* name(SeekOutcome outcome) {
    static constexpr std::array names = {"succeeded", "failed", "aborted", "replaced"};
    return nameIn(names, static_cast<std::size_t>(outcome));
}

} // namespace host
