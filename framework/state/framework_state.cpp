#include "state/framework_state.h"

#include "debug/shell/mshell.h"
#include "debug/shell/mshell_handler.h"
#include "debug/trace/trace_settings.h"
#include "debug/trace/zant_trace_core.h"
#include "messaging/queue/zant_msg_queue.h"
#include "messaging/thread/thread_object.h"
#include "messaging/timer/time_out_server.h"
#include "state/state_report.h"
#include "util/atomic_file.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using Json = StateReport::Json;

constexpr const char* defaultPath = "/tmp/zant_state.json";

Json describeProcess() {
    char time[CZantTrace::timestampSize];
    const auto length = zantTrace.PrintTimestampToCharString(time);
    std::ifstream statm("/proc/self/statm");
    long pages = 0;
    long resident = 0;
    statm >> pages >> resident;
    return {{"id", getpid()},
            {"name", program_invocation_short_name},
            {"time", std::string(time, length > 0 ? static_cast<size_t>(length) - 1 : 0)},
            {"resident_bytes", resident * sysconf(_SC_PAGESIZE)}};
}

/// A thread of whoever made it, as /proc/PID/task/TID/stat has it (proc(5)); null: it has ended.
Json describeTask(const std::filesystem::path& task) {
    std::ifstream file(task / "stat");
    std::string text;
    std::getline(file, text);
    const auto open = text.find('(');
    const auto close = text.rfind(')'); // a name may have any characters
    char state = '?';
    unsigned long user = 0;
    unsigned long system = 0;
    if (open == std::string::npos || close == std::string::npos ||
        std::sscanf(text.c_str() + close + 1, " %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu",
                    &state, &user, &system) != 3)
        return nullptr;
    const auto ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    return {{"id", std::atol(task.filename().c_str())},
            {"name", text.substr(open + 1, close - open - 1)},
            {"state", std::string(1, state)},
            {"cpu_seconds", static_cast<double>(user + system) / ticks}};
}

Json describeThreads() {
    std::map<long, CThreadObject::Info> objects;
    for (auto& info : CThreadObject::GetThreadInfos())
        objects.emplace(info.threadId, std::move(info));
    auto threads = Json::array();
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", error)) {
        auto thread = describeTask(task.path());
        if (thread.is_null())
            continue;
        if (const auto found = objects.find(thread["id"].get<long>()); found != objects.end()) {
            thread["name"] = found->second.name;
            thread["type"] = found->second.type;
            thread["messages"] = found->second.processedMsgs;
        }
        threads.push_back(std::move(thread));
    }
    return threads;
}

Json describeQueues() {
    auto queues = Json::array();
    for (const auto& info : CZantMsgQueue::GetQueueInfos())
        queues.push_back({{"handle", info.handle},
                          {"name", info.name},
                          {"open", info.isOpen},
                          {"blocking", info.isBlocking},
                          {"waiting", info.waiting},
                          {"maximum", info.maximum},
                          {"max_used", info.maxUsed},
                          {"read", info.nrRead},
                          {"last_signal", info.lastSignal}});
    return queues;
}

Json describeTimers() {
    auto timers = Json::array();
    for (auto& timer : TimeOutServer::instance().GetTimers())
        timers.push_back({{"id", timer.GetTimerId()},
                          {"signal", timer.GetSignalName()},
                          {"queue", timer.GetQueueId()},
                          {"milliseconds", timer.GetExpiryTime()},
                          {"remaining_milliseconds", timer.GetRemainingTime()}});
    return timers;
}

Json describeTrace() {
    Json trace{{"direct_print", static_cast<bool>(traceSettings.zantTraceDirectPrint)},
               {"to_screen", static_cast<bool>(traceSettings.tracingToScreen)},
               {"to_file", static_cast<bool>(traceSettings.tracingToFile)},
               {"to_syslog", static_cast<bool>(traceSettings.zantTraceUseSyslog)},
               {"timestamps", static_cast<bool>(traceSettings.timestamps)},
               {"units", Json::array()}};
    for (unsigned unit = 0; unit < MAX_TRACE_UNITS; ++unit) {
        const auto level = zantTrace.GetTraceActivationState(unit);
        if (level == TRACELEVEL_WARNING && !zantTrace.IsTraceUnitNamed(unit))
            continue; // one of the spare ones, as it was from the start
        trace["units"].push_back({{"unit", unit},
                                  {"name", zantTrace.GetTraceUnitNamePtr(unit)},
                                  {"level", static_cast<int>(level)},
                                  {"level_name", zantTrace.GetTraceLevelNamePtr(level)}});
    }
    return trace;
}

int MshellCmdState(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    const std::string path = command->paramCount > 0 ? command->params[0].string : defaultPath;
    const bool isQuiet = command->paramCount > 1 && command->params[1].string == "quiet";
    if (command->paramCount > 1 && !isQuiet) {
        FormattedStringToStdout("ERROR: Parameter 2 is 'quiet' or nothing\n");
        return badCommandParam;
    }
    std::vector<std::string> members;
    for (int i = 2; i < command->paramCount; ++i)
        members.emplace_back(command->params[i].string);
    try {
        const auto report = StateReport::instance().collect(longestAsk, members);
        if (isQuiet && writeFileAtomically(path, report).empty())
            return 0;
        return AnswerWithFile(path, report);
    } catch (const std::exception& error) {
        FormattedStringToStdout("ERROR: no state can be had: %s\n", error.what());
        return badCommandParam;
    }
}

constexpr MshellCmd stateCommands[] = {
    {0, "m_state",
     "m_state [file [quiet [member]...]]\tWrites all that the process knows of itself, as JSON",
     MshellCmdState},
};

} // namespace

void AddStateMshellCmds() {
    auto& report = StateReport::instance();
    report.add("process", describeProcess);
    report.add("threads", describeThreads);
    report.add("queues", describeQueues);
    report.add("timers", describeTimers);
    report.add("trace", describeTrace);
    mshell.AddMshellCmds("dbg", stateCommands);
}

int AnswerWithFile(const std::string& path, std::string_view content) {
    const auto failure = writeFileAtomically(path, content);
    if (failure.empty())
        FormattedStringToStdout("Written to %s\n", path.c_str());
    else
        FormattedStringToStdout("ERROR: %s\n", failure.c_str());
    return failure.empty() ? 0 : badCommandParam;
}
