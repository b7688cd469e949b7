#ifndef SCRIPT_EVENTS_H
#define SCRIPT_EVENTS_H

#include "script/script_control.h"
#include "util/mutex.h"

#include <atomic>
#include <cstddef>
#include <list>
#include <optional>
#include <string>
#include <string_view>

class CObserverCallbackFunction;

/// What scripts wait for: events of a kind, each a line of text. The framework has two kinds:
/// "trace", a line as it is put out, and "signal", the name of a message's signal; a program may
/// publish others. While no script watches, a trace costs one load more.
class ScriptEvents {
public:
    /// The room of an event's text with its terminator; what is longer is cut.
    static constexpr size_t textSize = 2000;

    class Watch;

    /// The one of the process, never destroyed.
    static ScriptEvents& instance();

    /// Tells all scripts that watch for it. From any thread, under any lock of the caller's: it
    /// takes no lock that is held elsewhere while something is called, and no heap memory.
    void publish(std::string_view kind, std::string_view text) EXCLUDES(m_mutex);

private:
    ScriptEvents() = default;
    void enter(Watch& watch) EXCLUDES(m_mutex);
    void leave(const Watch& watch) EXCLUDES(m_mutex);
    void switchTraces() REQUIRES(m_mutex);

    Mutex m_mutex; // the list, and what the watches have seen; taken before a script's own
    std::list<Watch*> m_watches GUARDED_BY(m_mutex);
    std::atomic<bool> m_isWatched{false};
};

/// Looks out for a text within the events of a kind, from its construction on. Bound to the
/// script's thread.
class ScriptEvents::Watch {
public:
    Watch(std::string kind, std::string text, ScriptControl& control);
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    /// The first event since the construction, or since the last one that was taken; nothing if
    /// none came in time, or the script was stopped.
    std::optional<std::string> take(ScriptControl::Clock::time_point deadline);

private:
    friend class ScriptEvents;

    const std::string m_kind;
    const std::string m_text;
    ScriptControl& m_control;
    std::atomic<bool> m_isSeen{false};
    /// Complete once it is seen.
    char m_seen[textSize];
    size_t m_seenLength = 0;
};

/// Publishes the signal of each message that it is called with: for a program to register with
/// those of its observables that scripts may wait for (CObservableCallbackFunction). Never
/// destroyed.
CObserverCallbackFunction& scriptSignalObserver();

/// What begins the lines that scripts write: they are no events.
constexpr std::string_view scriptLinePrefix = "script ";

#endif
