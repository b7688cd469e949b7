#ifndef SCRIPT_EVENTS_H
#define SCRIPT_EVENTS_H

#include "script/script_control.h"
#include "script/script_state.h"
#include "script/script_value.h"
#include "util/mutex.h"

#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class CObserverCallbackFunction;

/// What scripts wait for. There are events of a kind, each a line of text. Signals have parameters
/// besides, and every script has its own inbox of them. While no script runs, a signal costs one
/// load, a trace one more than without.
class ScriptEvents {
public:
    /// The room of an event's text with its terminator; what is longer is cut.
    static constexpr size_t textSize = 2000;

    enum class Kind {
        Trace,  ///< a line as the framework, or the program, puts it out
        State,  ///< what a ScriptState has become
        Signal, ///< the name of a signal
    };
    /// "trace", "state", "signal"; nothing for another word.
    static std::optional<Kind> kindOf(std::string_view word);

    class Watch;
    class Inbox;
    /// Gives an object: what a script finds in the signal's table beside its name.
    using Parameters = std::function<ScriptValue()>;

    /// The one of the process, never destroyed.
    static ScriptEvents& instance();

    /// Tells all scripts that watch for such a line. From any thread, under any lock of the
    /// caller's: it takes no lock that is held elsewhere while something is called, and no heap
    /// memory.
    void publishTrace(std::string_view line) EXCLUDES(m_mutex);

    /// Brings a signal to all scripts. `parameters` is called if there are any, under no lock.
    void publishSignal(std::string_view name, const Parameters& parameters = nullptr)
        EXCLUDES(m_mutex);
    /// The same for one behind which nothing comes that scripts would wait for: waits are over,
    /// until a script has waited for this signal itself. `why` says so in the errors of waits.
    void publishEnd(std::string_view name, const std::string& why) EXCLUDES(m_mutex);
    /// What signals may come: a script that waits for one of another name is told. Names that are
    /// known already are left out.
    void nameSignals(const std::vector<std::string>& names) EXCLUDES(m_mutex);
    /// The same for the signals of messages, of which there are as many as have an identifier.
    void nameMessageSignals() EXCLUDES(m_mutex);
    /// The names that are known.
    std::vector<std::string> signalNames() EXCLUDES(m_mutex);
    /// What all states are now, such as "video decoder granted".
    std::vector<std::string> states() EXCLUDES(m_mutex);

private:
    friend class ScriptState;

    ScriptEvents() = default;
    void enter(Watch& watch) EXCLUDES(m_mutex);
    void leave(const Watch& watch) EXCLUDES(m_mutex);
    void tell(Kind kind, std::string_view text) REQUIRES(m_mutex);
    void bring(const ScriptValue& signal) EXCLUDES(m_mutex);
    void switchSources() REQUIRES(m_mutex);

    Mutex m_mutex; // all of it; taken before a script's own
    std::list<Watch*> m_watches GUARDED_BY(m_mutex);
    std::list<Inbox*> m_inboxes GUARDED_BY(m_mutex);
    std::list<ScriptState*> m_states GUARDED_BY(m_mutex);
    std::vector<std::string> m_signalNames GUARDED_BY(m_mutex);
    std::atomic<bool> m_hasListeners{false};
};

/// Looks out for a text within the events of a kind, from its construction on; for one within the
/// states, from those on that are. Bound to the script's thread.
class ScriptEvents::Watch {
public:
    Watch(Kind kind, std::string text, ScriptControl& control);
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    /// Whether there is something to take. Any thread.
    bool hasSeen() const { return m_isSeen; }
    /// The first event since the construction, or since the last one that was taken; nothing if
    /// none has come.
    std::optional<std::string> take();

private:
    friend class ScriptEvents;
    void see(Kind kind, std::string_view text);

    const Kind m_kind;
    const std::string m_text;
    ScriptControl& m_control;
    std::atomic<bool> m_isSeen{false};
    /// Complete once it is seen.
    char m_seen[textSize];
    size_t m_seenLength = 0;
};

/// The signals that have come since its construction, each an object with its "name" and its
/// parameters; "ends_waits" has the reason of one that ends waits. Bound to the script's thread.
class ScriptEvents::Inbox {
public:
    /// Of more than these the oldest are lost.
    static constexpr size_t mostSignals = 1000;

    explicit Inbox(ScriptControl& control);
    ~Inbox();
    Inbox(const Inbox&) = delete;
    Inbox& operator=(const Inbox&) = delete;

    /// Whether there is something to take. Any thread.
    bool hasSignals() const { return m_hasSignals; }
    /// The oldest one; nothing if there is none.
    std::optional<ScriptValue> take();

private:
    friend class ScriptEvents;

    ScriptControl& m_control;
    std::atomic<bool> m_hasSignals{false};
    std::deque<ScriptValue> m_signals; // guarded by the lock of the events
};

/// Publishes the signal of each message that it is called with: for a program to register with
/// those of its observables that scripts may wait for (CObservableCallbackFunction). Never
/// destroyed.
CObserverCallbackFunction& scriptSignalObserver();

/// What begins the lines that scripts write: they are no events.
constexpr std::string_view scriptLinePrefix = "script ";

#endif
