#ifndef UVA_REPLAY_PLAYER_H
#define UVA_REPLAY_PLAYER_H

#include "script.h"
#include "util/mutex.h"
#include "uva/uva_event.h"
#include "uva/uva_stream_config.h"

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class UVAMediaBackend;

namespace host {
class BackendLibrary;
}

namespace replay {

struct Pace {
    bool fast = false;                        ///< else in the recorded time
    std::chrono::milliseconds patience{5000}; ///< with what the library does not do
    std::string media; ///< folder of the files that are not where they were; empty: none
};

/// Plays a script to a library: makes the steps in their order, each when what came before it has
/// come again, and answers what is asked for as it was answered. Steps are made on the thread of
/// run(); what was made inside an event is made there. Once, from run() on.
class Player {
public:
    using Clock = std::chrono::steady_clock;
    using Tell = std::function<void(const std::string& line)>;

    /// All must outlive it. `tell` hears what was waited for in vain; any thread.
    Player(const Script& script, const host::BackendLibrary& library, Pace pace, Tell tell);
    ~Player();

    void run();

    /// A call that has not returned for longer than it should; empty: none. Any thread.
    std::string hangingCall() const;

private:
    class Element;
    class UnderWay;
    /// An event that waits for its answer.
    struct Waiting {
        std::unique_ptr<UVAEvent> event;
        Clock::time_point since;
    };
    struct Answer {
        const Call* call = nullptr; ///< null: none is due
        Waiting waiting;
    };
    using Kind = std::pair<std::uint32_t, std::uint16_t>; ///< the backend, the type of the event

    void deliver(Element& element, std::unique_ptr<UVAEvent> event);
    const Event* match(Element& element, const UVAEvent& event) REQUIRES(m_mutex);
    void keep(Element& element, const Event* recorded, std::unique_ptr<UVAEvent> event)
        REQUIRES(m_mutex);
    void makeStepsInside(const Event& event);

    bool turn(const Call& step);
    Waiting* waitingFor(const Call& answer) REQUIRES(m_mutex);
    template <typename IsWanted>
    Answer takeAnswer(IsWanted isWanted) REQUIRES(m_mutex);
    Answer takeDueAnswer(Clock::time_point now, Clock::time_point& next) REQUIRES(m_mutex);
    bool waitsForVoid(const Call& answer) REQUIRES(m_mutex);
    void forgetVoid(const Call& answer) REQUIRES(m_mutex);
    std::string missingFor(const Call& step) const REQUIRES(m_mutex);
    void forgetMissing(const Call& step) REQUIRES(m_mutex);
    bool isBefore(const Call& step, std::uint32_t object, std::size_t position) const;
    void begin(const Call& step) REQUIRES(m_mutex);

    void make(const Call& step);
    void answer(Answer& answer);
    Answer keepForMore(Answer answered, bool isInside);
    void write(UVAMediaBackend& backend, const Call& call, std::unique_ptr<UVAEvent> event);
    void releaseAll();
    Element& elementOf(std::uint32_t number);
    std::shared_ptr<const UVAStreamConfig> config(std::uint32_t number);

    const Script& m_script;
    const host::BackendLibrary& m_library;
    const Pace m_pace;
    const Tell m_tell;
    std::map<const Entry*, std::vector<const Call*>> m_stepsInside; // by the event
    Entry m_endEntry;
    Call m_end; // behind all steps: nothing is made, but waited for

    mutable Mutex m_mutex; // nothing of the library is called under it
    ConditionVariable m_changed;
    std::map<std::uint32_t, std::unique_ptr<Element>> m_elements GUARDED_BY(m_mutex);
    std::map<std::uint32_t, std::shared_ptr<const UVAStreamConfig>> m_configs GUARDED_BY(m_mutex);
    std::map<Kind, std::deque<const Event*>> m_expected GUARDED_BY(m_mutex); // not yet matched
    std::map<std::size_t, const Event*> m_awaited GUARDED_BY(m_mutex);       // by their position
    std::deque<const Call*> m_answers GUARDED_BY(m_mutex); // that are still to be made
    std::size_t m_next GUARDED_BY(m_mutex) = 0;            // step
    Clock::time_point m_begin GUARDED_BY(m_mutex);   // of the record, moved by what was waited for
    Clock::time_point m_current GUARDED_BY(m_mutex); // since when the next step may be made
    std::map<const Call*, Clock::time_point> m_underWay GUARDED_BY(m_mutex); // since when
};

} // namespace replay

#endif
