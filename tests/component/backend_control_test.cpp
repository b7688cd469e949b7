// What an engineer and the main system change on a running set: shell commands, control commands.

#include "debug/shell/command_struct.h"
#include "debug/shell/mshell.h"
#include "one_backend.h"
#include "support/wait_until.h"

#include <cstdlib>
#include <nlohmann/json.hpp>

namespace {

class BackendControl : public OneBackend {};

TEST_F(BackendControl, SetsGStreamersDebugOutput) {
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

TEST_F(BackendControl, SwitchesTheAudioOutputOfAPlayerThatHasOne) {
    LogCapture log(gst_backend_debug);
    backend.controlCommands("output-ddp:1");
    EXPECT_TRUE(log.has("WARN ***W: called on inactive player"));
    backend.controlCommands(nullptr);

    const auto sink = GstPtr<GstElement>::sink(gst_element_factory_make("halaudiosink", nullptr));
    ASSERT_EQ(backend.gstPlaybinCreate(), 0);
    backend.controlCommands("output-ddp:1"); // nothing to switch yet
    GstNoxPipeline::element_setup_cb(nullptr, sink.get(), &backend.pipeline());
    const auto ddp = [&](const char* commands) {
        backend.controlCommands(commands);
        guint value = 99;
        g_object_get(sink.get(), "output-ddp", &value, nullptr);
        return value;
    };
    EXPECT_EQ(ddp("output-ddp:1"), 1U);
    EXPECT_EQ(ddp("output-ddp:x"), 0U);
    EXPECT_EQ(ddp("volume:3 output-ddp:12"), 1U);
    EXPECT_EQ(ddp("output-ddp:"), 0U);
    EXPECT_EQ(ddp("output-ddp"), 0U);
    backend.gstPlayerStopAndDestroy();
    EXPECT_EQ(ddp("output-ddp:1"), 0U) << "the player is gone";
}

// The last audio source's, as long as it is there and there is a player.
TEST_F(BackendControl, SwitchesTheAudioOutputOfAMediaSource) {
    const auto attach = [&](unsigned int id, const char* mime) {
        EXPECT_EQ(backend.attachSource(new TestSource(id, mime)), UVABackend::Success);
    };
    const struct {
        std::function<void()> before;
        const char* line; // null: none
    } rows[] = {
        {[&] { attach(1, "video/x-h264"); }, nullptr},
        {[&] { attach(2, "audio/x-plain"); }, "DEBUG enable=3"},
        {[&] { backend.removeSource(1); }, "DEBUG enable=3"},
        {[&] { attach(3, "audio/x-plain"); }, "DEBUG enable=3"},
        {[&] { backend.removeSource(2); }, "DEBUG enable=3"},
        {[&] { backend.removeSource(3); }, nullptr},
        {[&] { backend.releaseResources(UVABackend::AllResources); },
         "WARN ***W: called on inactive player"},
    };
    for (const auto& row : rows) {
        row.before();
        LogCapture log(gst_backend_debug);
        backend.controlCommands("output-ddp:3");
        std::vector<std::string> expected = {"DEBUG commands = 'output-ddp:3'"};
        if (row.line != nullptr)
            expected.emplace_back(row.line);
        EXPECT_EQ(log.lines(), expected) << &row - rows;
    }
}

TEST_F(BackendControl, TheShellTellsOfEveryBackend) {
    const auto alone = GstNoxBackend::describeAll();
    EXPECT_EQ(std::count(alone.begin(), alone.end(), '\n'), 1) << alone;
    GstNoxBackend second(UVABackend::VideoElement, &client);
    second.attachSource(new TestSource(4, "video/x-plain"));
    second.setPosition(3);
    const auto text = GstNoxBackend::describeAll();
    EXPECT_NE(text.find(" NULL position=99:99:99.999999999\n0x"), std::string::npos) << text;
    EXPECT_NE(text.find(" NULL position=0:00:03.000000000\n  video_4: "), std::string::npos)
        << text;
}

TEST_F(BackendControl, TheStateIsTold) {
    GstNoxBackend second(UVABackend::VideoElement, &client);
    second.attachSource(new TestSource(4, "video/x-plain"));
    EXPECT_EQ(second.setPosition(3), 1);
    EXPECT_EQ(second.setPosition(-1), 0);
    const auto all = GstNoxBackend::stateOfAll();
    ASSERT_EQ(all["backends"].size(), 2U);
    EXPECT_EQ(all["decoder_link"]["waiting"], 0);
    const auto& state = all["backends"][1];
    EXPECT_EQ(state["state"], "NULL");
    EXPECT_EQ(state["position_seconds"], 3.0);
    EXPECT_TRUE(state["duration_seconds"].is_null());
    EXPECT_EQ(state["seek"]["phase"], "waits for the client");
    EXPECT_EQ(state["seek"]["requested"], 2);
    EXPECT_EQ(state["seek"]["failed"], 1);
    EXPECT_EQ(state["decoder_requests"].size(), 0U);
    EXPECT_EQ(state["sources"][0]["id"], 4);
    EXPECT_EQ(state["sources"][0]["queued"], 0);
    EXPECT_FALSE(state.contains("last_error"));
    EXPECT_EQ(state["pipeline"]["state"], "NULL");
    EXPECT_FALSE(state.contains("url"));
    const auto& events = state["events"]; // the latest one is that of the seek that was refused
    EXPECT_EQ(events[events.size() - 1]["name"], "SeekCompletedEx");
    EXPECT_EQ(events[events.size() - 1]["number"], events.size());
    EXPECT_LT(events[0]["seconds_ago"], 60);
    for (const void* one : {static_cast<const void*>(nullptr), static_cast<const void*>(&second)})
        EXPECT_NE(GstNoxBackend::graphOf(one).find("msebin_4"), std::string::npos);
    EXPECT_EQ(GstNoxBackend::graphOf(&backend), "") << "it has no pipeline";
    EXPECT_EQ(GstNoxBackend::graphOf(&client), "") << "no backend";
}

TEST_F(BackendControl, CategoriesAreNamedAndColoured) {
    const struct {
        const char* name;
        guint colour;
        const char* description;
    } rows[] = {
        {"uvapluginloader", 0, "The plugin loader for the media backend"},
        {"uvabackend", 0, "UVA media backend (C++ class)"},
        {"uvabackendif", 0, "UVA media backend (interface)"},
        {"uvamshell", 0, "UVA media backend (mshell)"},
        {"uvadbg", GST_DEBUG_FG_YELLOW, "UVA debug backend (C++ class)"},
        {"gstuvacontentprotectionhandler", 0, "GstUvaContentProtectionHandler debug"},
    };
    for (const auto& row : rows) {
        auto* category = _gst_debug_get_category(row.name);
        ASSERT_NE(category, nullptr) << row.name;
        EXPECT_EQ(gst_debug_category_get_color(category), row.colour) << row.name;
        EXPECT_STREQ(gst_debug_category_get_description(category), row.description);
    }
}

} // namespace
