#include "plugin/gstnox_mshell.h"

#include "backend/gstnox_backend.h"
#include "base/gstnox_debug.h"
#include "debug/shell/command_struct.h"
#include "debug/shell/mshell.h"
#include "debug/trace/zant_trace.h"

#include <string>

namespace {

constexpr int wrongParameter = -1602;

} // namespace

void uva_add_mshell_commands() {
    static constexpr MshellCmd commands[] = {
        {1, "m_gst_debug_set_threshold", "u_gst_debug_set_threshold GST_DEBUG",
         m_gst_debug_set_threshold},
        {1, "m_gst_debug_set_color_mode", "u_gst_debug_set_color_mode {on,auto,off,disable,unix}",
         m_gst_debug_set_color_mode},
        {1, "m_mse", "m_mse", m_mse},
    };
    mshell.AddMshellCmds("uva", commands);
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
