#include "plugin/gstnox_mshell.h"

#include "backend/gstnox_backend.h"
#include "base/gstnox_debug.h"
#include "debug/shell/command_struct.h"
#include "debug/shell/mshell.h"
#include "debug/trace/zant_trace.h"
#include "script/script_events.h"
#include "state/framework_state.h"
#include "state/state_report.h"
#include "util/bounded_ask.h"

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace {

constexpr int wrongParameter = -1602;
constexpr const char* defaultGraphPath = "/tmp/uva_graph.dot";

/// Says why there is none. Who asks may come back when all else has gone.
std::optional<std::string> askForGraph(const void* backend) {
    using Question = BoundedAsk<std::string>;
    static auto& question = *new Question;
    std::optional<std::string> graph;
    try {
        if (question.begin([backend] { return GstNoxBackend::graphOf(backend); }))
            graph = question.end(Question::Clock::now() + longestAsk);
        if (!graph)
            FormattedStringToStdout("ERROR: no answer: an element of a pipeline holds its lock\n");
    } catch (const std::exception& error) {
        FormattedStringToStdout("ERROR: nobody can look at the pipeline: %s\n", error.what());
    }
    return graph;
}

} // namespace

void uva_add_mshell_commands() {
    static constexpr MshellCmd commands[] = {
        {1, "m_gst_debug_set_threshold", "u_gst_debug_set_threshold GST_DEBUG",
         m_gst_debug_set_threshold},
        {1, "m_gst_debug_set_color_mode", "u_gst_debug_set_color_mode {on,auto,off,disable,unix}",
         m_gst_debug_set_color_mode},
        {1, "m_mse", "m_mse", m_mse},
        {0, "m_graph", "m_graph [file [backend]]\tWrites what a backend's pipeline consists of",
         m_graph},
    };
    mshell.AddMshellCmds("uva", commands);
    StateReport::instance().add("media", GstNoxBackend::stateOfAll);
    ScriptEvents::instance().nameSignals(GstNoxBackend::signalNames());
}

int m_gst_debug_set_threshold(CommandStruct* command) {
    if (command->paramCount == 0)
        return wrongParameter;
    std::string levels;
    for (int i = 0; i < command->paramCount; ++i) {
        if (command->params[i].type != CommandParam::text)
            continue;
        levels += levels.empty() ? "" : ",";
        levels += command->params[i].string;
    }
    GST_CAT_LEVEL_LOG(gst_mshell_debug, GST_LEVEL_NONE, nullptr, "'GST_DEBUG=%s'\n",
                      levels.c_str());
    gst_debug_set_threshold_from_string(levels.c_str(), TRUE);
    g_setenv("GST_DEBUG", levels.c_str(), TRUE);
    return 0;
}

int m_gst_debug_set_color_mode(CommandStruct* command) {
    if (command->paramCount != 1 || command->params[0].type != CommandParam::text)
        return wrongParameter;
    const char* mode = command->params[0].string.c_str();
    GST_CAT_LEVEL_LOG(gst_mshell_debug, GST_LEVEL_NONE, nullptr, "'GST_COLOR_MODE=%s'\n", mode);
    gst_debug_set_color_mode_from_string(mode);
    return 0;
}

int m_mse(CommandStruct* /*command*/) {
    const std::string text = GstNoxBackend::describeAll();
    FormattedStringToStdout("%s", text.empty() ? "no backend\n" : text.c_str());
    return 0;
}

int m_graph(CommandStruct* command) {
    const char* address = command->paramCount > 1 ? command->params[1].string.c_str() : "0";
    char* end = nullptr;
    const auto* backend = reinterpret_cast<const void*>(std::strtoull(address, &end, 16));
    if (*end != '\0') {
        FormattedStringToStdout("ERROR: Parameter 2 (backend) is no address: m_mse has them\n");
        return wrongParameter;
    }
    const auto graph = askForGraph(backend);
    if (graph && graph->empty())
        FormattedStringToStdout("ERROR: there is no such backend, or none with a pipeline: m_mse "
                                "lists them\n");
    if (!graph || graph->empty())
        return wrongParameter;
    return AnswerWithFile(command->paramCount > 0 ? command->params[0].string : defaultGraphPath,
                          *graph);
}
