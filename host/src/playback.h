#ifndef HOST_PLAYBACK_H
#define HOST_PLAYBACK_H

#include "host/status.h"

#include <algorithm>
#include <functional>
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
    void addSource(unsigned int id, StreamInfo::Kind kind) { m_sources.emplace_back(id, kind); }
    /// Reads position, duration and what the backend holds.
    void refresh();

    bool isWanted() const { return m_wanted; }
    void play();
    void pause();
    /// What was wanted while there was no media yet.
    void catchUp();

    bool isHeld() const { return m_held; }
    void hold(); ///< whatever is wanted
    void letGo();

    // What the backend tells.
    void moved();
    void underrun();
    void buffered();
    void take(const NewMetadataEvent& media);
    void take(const MultiComponentChangedEvent& change, const Components& added);

private:
    Calls& m_calls;
    ProgressWatch& m_watch;
    const std::function<void()> m_failed;

    Status m_status;
    std::vector<const void*> m_componentKeys; // one for each of m_status.components
    std::vector<std::pair<unsigned int, StreamInfo::Kind>> m_sources; // empty: a URL is played
    Stage m_stage = Stage::Requested;
    bool m_wanted = false; // to play
    bool m_held = false;   // until there is enough data again
};

} // namespace host

#endif
