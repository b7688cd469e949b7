#ifndef UVA_SCOPE_PLAYER_H
#define UVA_SCOPE_PLAYER_H

#include "json.h"
#include "rolling.h"
#include "why.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace scope {

/// What became known at a moment: `name` is what a track shows from then on, or an event.
struct Record {
    double time; ///< seconds of CLOCK_MONOTONIC
    std::string track;
    std::string name;
    std::string detail;
};

/// A line that the player has printed, or that was added to a log that is followed.
struct Line {
    double time;
    const char* source; ///< "trace" or "log"
    std::string text;
};

/// What is known of one player, from what its probe tells. Bound to a thread.
class Player {
public:
    enum class Status { Waiting, Answers, Silent, Ended };

    /// `box`: empty for here.
    Player(std::string id, std::string box) : m_id(std::move(id)), m_box(std::move(box)) {}

    /// A message of the probe, which came at `time`.
    void take(const Json& message, double time);
    /// There is no probe: it has ended, or there is no box.
    void lost(const std::string& reason, double time);

    const std::string& id() const { return m_id; }
    const std::string& box() const { return m_box; }
    Status status() const { return m_status; }
    /// Why it does not answer.
    const std::string& reason() const { return m_reason; }
    /// Nothing has come for that many seconds: a player that answered does not any more.
    void checkHeard(double time, double longest);
    /// All but the time line and the lines.
    Json describe() const;
    /// As the player describes itself.
    const Json& state() const { return m_state; }
    const Json& mainSystem() const { return m_mainSystem; }
    const Rolling<Record>& timeline() const { return m_timeline; }
    const Rolling<Line>& lines() const { return m_lines; }

private:
    struct Backend {
        Standing standing;
        Why why;
        double lastEvent = 0;                     ///< its number
        std::map<std::string, std::string> shows; ///< by track
    };

    void takeState(const Json& message, double time);
    void takeBackend(const Json& state, const Json& link, double time);
    void takeEvents(Backend& backend, const Json& state, double time);
    void show(Backend& backend, const std::string& track, const std::string& name, double time,
              const std::string& detail = {});
    void takeLines(const Json& message, const char* source, double time);
    void setStatus(Status status, const std::string& reason, double time);
    Json describeBackends() const;

    const std::string m_id;
    const std::string m_box;
    Status m_status = Status::Waiting;
    std::string m_reason = "no answer yet; the player may be stopped, or its shell be busy";
    std::string m_note;
    double m_since = 0;
    double m_heard = 0; ///< when the probe's latest message came
    double m_process = 0;
    Json m_state;
    Json m_mainSystem;
    std::map<std::string, Backend> m_backends;    ///< by address
    std::map<std::string, std::string> m_partial; ///< by source: a line without its end
    Rolling<Record> m_timeline{5000};
    Rolling<Line> m_lines{5000};
};

} // namespace scope

#endif
