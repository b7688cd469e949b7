#ifndef HOST_PLAYBACK_H
#define HOST_PLAYBACK_H

#include "host/status.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class MultiComponentChangedEvent;
class NewMetadataEvent;

namespace host {

class Calls;
class ProgressWatch;
struct Argument;

/// Where playback is, which is what the observer sees as the status, and what is wanted of it.
class Playback {
public:
    /// How far the media has come; it only goes forward.
    enum class Stage {
        Requested,
        Initialized, ///< the backend has it
        Known,       ///< the backend has told something about it
        Played,      ///< something was
    };
    using Components = std::vector<std::pair<const void*, Component>>;

    /// `failed` is called once playback has.
    Playback(Calls& calls, ProgressWatch& watch, std::function<void()> failed)
        : m_calls(calls), m_watch(watch), m_failed(std::move(failed)) {}

    const Status& status() const { return m_status; }
    bool is(State state) const { return m_status.state == state; }
    bool over() const { return is(State::Idle) || is(State::Ended) || is(State::Failed); }
    bool reached(Stage stage) const { return m_stage >= stage; }
    void advance(Stage stage) { m_stage = std::max(m_stage, stage); }

    void setState(State state);
    void publish();
    void fail(std::string reason);

    /// Hands the sources over, which end with a null.
    bool initialize(UVABackend::SourceDescription** sources, std::vector<Argument> arguments);
    /// Of such a source the status tells what the backend holds.
    void addSource(SourceId id, StreamInfo::Kind kind) { m_sources.emplace_back(id, kind); }
    void removeSource(SourceId id);
    /// Reads position, duration and what the backend holds.
    void refresh();

    /// Samples are played, not a URL; from this time on, seconds.
    void playFrom(double seconds);
    bool isFed() const { return m_isFed; }
    /// Where playback is to be now: the position, to the last bit, until something is played there.
    void place(double seconds);
    void leavePlace() { m_placeAt.reset(); } ///< it is not to be there after all
    /// The host knows it: of the whole, seconds; 0: unknown.
    void setDuration(double seconds);

    bool isWanted() const { return m_wanted; }
    void play();
    void pause();
    /// What was wanted while there was no media yet.
    void catchUp();

    bool isHeld() const { return m_held; }
    void hold(); ///< whatever is wanted
    void letGo();

    /// All has been played.
    void finish();

    // What the backend tells.
    void moved();
    void underrun();
    void buffered();
    void take(const NewMetadataEvent& media);
    void take(const MultiComponentChangedEvent& change, const Components& added);

private:
    bool hasLeftPlace(double position) const;

    Calls& m_calls;
    ProgressWatch& m_watch;
    const std::function<void()> m_failed;

    Status m_status;
    std::vector<const void*> m_componentKeys; // one for each of m_status.components
    std::vector<std::pair<SourceId, StreamInfo::Kind>> m_sources;
    bool m_isFed = false;            // by the host
    bool m_isDurationTold = false;   // by the host
    std::optional<double> m_placeAt; // where playback was told to be, and has not moved from
    Stage m_stage = Stage::Requested;
    bool m_wanted = false; // to play
    bool m_held = false;   // until there is enough data again
};

} // namespace host

#endif
