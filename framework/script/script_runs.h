#ifndef SCRIPT_RUNS_H
#define SCRIPT_RUNS_H

#include "script/script.h"
#include "util/mutex.h"

#include <chrono>
#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <vector>

/// How a run has ended, in words.
std::string describeEnd(const ScriptOutcome& outcome);

/// The scripts that run on threads of their own, and the latest that have. Thread-safe; a script
/// may start and stop others, and itself.
class ScriptRuns {
public:
    /// At a time.
    static constexpr size_t mostRunning = 8;
    /// That have ended are remembered.
    static constexpr size_t mostEnded = 8;

    /// A script that runs, or has.
    struct Info {
        int number; ///< from 1 on, in the order of their start
        std::string name;
        bool runs;
        std::chrono::seconds age; ///< since the start
        std::string end;          ///< how it ended; empty while it runs
    };
    /// What start() answers.
    struct Start {
        int number;        ///< 0: it was not started
        std::string error; ///< why not, and what to do
    };

    /// The one of the process, never destroyed.
    static ScriptRuns& instance();

    /// Starts a thread "script NUMBER", which says on the trace output how it ended; an error goes
    /// to syslog, too.
    Start start(const CompiledScript& script, const ScriptValues& arguments) EXCLUDES(m_mutex);
    /// Asks the script to end, and waits that long for it, or until the calling thread is asked to
    /// end itself. False: there is none of that number.
    bool stop(int number, std::chrono::milliseconds patience) EXCLUDES(m_mutex);
    /// Asks all.
    void stopAll(std::chrono::milliseconds patience) EXCLUDES(m_mutex);
    /// Asks all, for good: the process ends, and no more is started. A script that does not end in
    /// that time, in a command of its own, is left to the end of the process.
    void end(std::chrono::milliseconds patience) EXCLUDES(m_mutex);
    /// Those that run and those that are remembered, in the order of their start.
    std::vector<Info> list() EXCLUDES(m_mutex);

private:
    class Run;
    using Runs = std::list<std::shared_ptr<Run>>;

    ScriptRuns() = default;
    Runs runs() EXCLUDES(m_mutex);
    Runs takeOldest() REQUIRES(m_mutex);
    static void stop(const Runs& runs, std::chrono::milliseconds patience);

    Mutex m_mutex; // the list; a thread is started under it, nothing else is called
    Runs m_runs GUARDED_BY(m_mutex);
    int m_lastNumber GUARDED_BY(m_mutex) = 0;
    bool m_isOver GUARDED_BY(m_mutex) = false; // the process ends
};

#endif
