#include "script/script_runs.h"

#include "debug/trace/zant_trace.h"
#include "messaging/thread/thread_object.h"

#include <algorithm>
#include <atomic>

std::string describeEnd(const ScriptOutcome& outcome) {
    if (outcome.end == ScriptOutcome::End::Finished)
        return outcome.result.is_null()
                   ? "finished"
                   : "finished: " +
                         outcome.result.dump(-1, ' ', false, ScriptValue::error_handler_t::replace);
    return (outcome.end == ScriptOutcome::End::Stopped ? "stopped: " : "failed: ") + outcome.error;
}

/// A script on its thread.
class ScriptRuns::Run : public CThreadObject {
public:
    Run(int its, const CompiledScript& script, const ScriptValues& arguments)
        : number(its), m_script(script), m_arguments(arguments) {}
    ~Run() override { Run::StopThreadAndWait(); }

    void StopThread() override {
        m_control.stop();
        CThreadObject::StopThread();
    }
    void StopThreadAndWait() override {
        m_control.stop();
        CThreadObject::StopThreadAndWait();
    }
    void ThreadWorkFunction() override {
        const auto outcome = SILRun(m_script, m_arguments, m_control);
        const std::string end = describeEnd(outcome);
        const std::string line = std::string(scriptLinePrefix) + std::to_string(number) + " (" +
                                 m_script.name() + ") " + end + "\n";
        FormattedStringToStdout("%s", line.c_str());
        if (outcome.end == ScriptOutcome::End::Failed || outcome.end == ScriptOutcome::End::TooLong)
            ErrorToSyslog(line.c_str());
        {
            const MutexLock lock(m_mutex);
            m_end = end;
            m_hasEnded = true;
        }
        AnnounceChange();
    }

    bool hasEnded() const { return m_hasEnded; }
    ScriptRuns::Info describe() EXCLUDES(m_mutex) {
        using std::chrono::duration_cast;
        const auto age = ScriptControl::Clock::now() - m_begin;
        const MutexLock lock(m_mutex);
        return {number, m_script.name(), !m_hasEnded, duration_cast<std::chrono::seconds>(age),
                m_end};
    }

    const int number;

private:
    const CompiledScript m_script;
    const ScriptValues m_arguments;
    const ScriptControl::Clock::time_point m_begin = ScriptControl::Clock::now();
    ScriptControl m_control;
    Mutex m_mutex; // how it ended
    std::string m_end GUARDED_BY(m_mutex);
    std::atomic<bool> m_hasEnded{false};
};

ScriptRuns& ScriptRuns::instance() {
    static auto& runs = *new ScriptRuns;
    return runs;
}

ScriptRuns::Start ScriptRuns::start(const CompiledScript& script, const ScriptValues& arguments) {
    Runs forgotten; // they go without the lock
    const MutexLock lock(m_mutex);
    if (m_isOver)
        return {0, "the process ends"};
    const auto running = std::count_if(m_runs.begin(), m_runs.end(),
                                       [](const auto& run) { return !run->hasEnded(); });
    if (static_cast<size_t>(running) >= mostRunning)
        return {0, std::to_string(running) + " scripts run: stop one"};
    forgotten = takeOldest();
    auto run = std::make_shared<Run>(m_lastNumber + 1, script, arguments);
    if (run->StartThread(("script " + std::to_string(run->number)).c_str(), 0, 0) != 0)
        return {0, "no thread can be started"};
    m_runs.push_back(run);
    return {++m_lastNumber, {}};
}

/// Those that have ended, but for the latest.
ScriptRuns::Runs ScriptRuns::takeOldest() {
    Runs ended;
    auto count = std::count_if(m_runs.begin(), m_runs.end(),
                               [](const auto& run) { return run->hasEnded(); });
    for (auto run = m_runs.begin(); run != m_runs.end();) {
        const auto next = std::next(run);
        if ((*run)->hasEnded() && static_cast<size_t>(count) >= mostEnded) {
            ended.splice(ended.end(), m_runs, run);
            --count;
        }
        run = next;
    }
    return ended;
}

ScriptRuns::Runs ScriptRuns::runs() {
    const MutexLock lock(m_mutex);
    return m_runs;
}

void ScriptRuns::stop(const Runs& runs, std::chrono::milliseconds patience) {
    for (const auto& run : runs)
        run->StopThread();
    // Not joined: two scripts may stop each other, or one itself.
    CThreadObject::WaitUnlessStopped(ScriptControl::Clock::now() + patience, [&runs] {
        return std::all_of(runs.begin(), runs.end(),
                           [](const auto& run) { return run->hasEnded(); });
    });
}

bool ScriptRuns::stop(int number, std::chrono::milliseconds patience) {
    Runs wanted = runs();
    wanted.remove_if([number](const auto& run) { return run->number != number; });
    stop(wanted, patience);
    return !wanted.empty();
}

void ScriptRuns::stopAll(std::chrono::milliseconds patience) {
    stop(runs(), patience);
}

void ScriptRuns::end(std::chrono::milliseconds patience) {
    {
        const MutexLock lock(m_mutex);
        m_isOver = true;
    }
    stopAll(patience);
}

std::vector<ScriptRuns::Info> ScriptRuns::list() {
    std::vector<Info> infos;
    for (const auto& run : runs())
        infos.push_back(run->describe());
    return infos;
}
