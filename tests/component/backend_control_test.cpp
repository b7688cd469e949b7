// What an engineer and the main system change on a running set: shell commands, control commands.

#include "debug/command_struct.h"
#include "debug/mshell.h"
#include "gstnox_backend.h"
#include "gstnox_plugin.h"
#include "support/log_capture.h"
#include "support/media_host.h"
#include "support/wait_until.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

using support::LogCapture;
using support::RecordingClient;
using support::TestSource;

TEST(BackendShell, SetsGStreamersDebugOutput) {
    ASSERT_TRUE(BackendInit(nullptr));
    LogCapture log(gst_mshell_debug);
    EXPECT_EQ(mshell.ProcessMshellCmd("m_gst_debug_set_threshold *:3 GST_PADS:5 7"), 0);
    EXPECT_TRUE(log.has(" 'GST_DEBUG=*:3,GST_PADS:5'\n"));
    EXPECT_STREQ(std::getenv("GST_DEBUG"), "*:3,GST_PADS:5");
    EXPECT_EQ(gst_debug_category_get_threshold(gst_backendif_debug), GST_LEVEL_FIXME);
    EXPECT_EQ(mshell.ProcessMshellCmd("m_gst_debug_set_threshold *:0"), 0);
    EXPECT_EQ(gst_debug_category_get_threshold(gst_backendif_debug), GST_LEVEL_NONE);

    EXPECT_EQ(mshell.ProcessMshellCmd("m_gst_debug_set_color_mode off"), 0);
    EXPECT_EQ(gst_debug_get_color_mode(), GST_DEBUG_COLOR_MODE_OFF);
    for (const char* wrong : {"m_gst_debug_set_threshold", "m_gst_debug_set_color_mode",
                              "m_gst_debug_set_color_mode 1", "m_gst_debug_set_color_mode on on"})
        EXPECT_EQ(mshell.ProcessMshellCmd(wrong), -1602) << wrong;
    EXPECT_EQ(gst_debug_get_color_mode(), GST_DEBUG_COLOR_MODE_OFF);
}

TEST(BackendControl, SwitchesTheAudioOutputOfAPlayerThatHasOne) {
    ASSERT_TRUE(BackendInit(nullptr));
    RecordingClient client;
    GstNoxBackend backend(UVABackend::VideoElement, &client);
    LogCapture log(gst_backend_debug);
    backend.controlCommands("output-ddp:1");
    EXPECT_TRUE(log.has("WARN ***W: called on inactive player"));
    backend.controlCommands(nullptr);

    GstElement* sink = gst_element_factory_make("halaudiosink", nullptr);
    ASSERT_NE(sink, nullptr);
    gst_object_ref_sink(sink);
    ASSERT_EQ(backend.gstPlaybinCreate(), 0);
    backend.controlCommands("output-ddp:1"); // nothing to switch yet
    GstNoxBackend::element_setup_cb(nullptr, sink, &backend);
    const auto ddp = [&](const char* commands) {
        backend.controlCommands(commands);
        guint value = 99;
        g_object_get(sink, "output-ddp", &value, nullptr);
        return value;
    };
    EXPECT_EQ(ddp("output-ddp:1"), 1U);
    EXPECT_EQ(ddp("output-ddp:x"), 0U);
    EXPECT_EQ(ddp("volume:3 output-ddp:12"), 1U);
    EXPECT_EQ(ddp("output-ddp:"), 0U);
    EXPECT_EQ(ddp("output-ddp"), 0U);
    backend.gstPlayerStopAndDestroy();
    backend.controlCommands("output-ddp:1");
    guint value = 99;
    g_object_get(sink, "output-ddp", &value, nullptr);
    EXPECT_EQ(value, 0U);
    gst_object_unref(sink);
}

} // namespace
