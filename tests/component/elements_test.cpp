#include "sink_player.h"

#include "nox/screen.h"
#include "support/sink_watch.h"
#include "support/wait_until.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

using support::waitUntil;

namespace {

class GstEnvironment : public testing::Environment {
    void SetUp() override {
        gst_init(nullptr, nullptr);
        support::SinkWatch::instance();
    }
};
const auto* const environment = testing::AddGlobalTestEnvironment(new GstEnvironment);

nox::Picture grabbed(int width = 0, int height = 0) {
    nox::Picture picture;
    nox::Screen::instance().grab(picture, width, height);
    return picture;
}

std::size_t colours(const nox::Picture& picture) {
    std::set<std::uint32_t> seen;
    for (std::size_t i = 0; i + 3 < picture.rgba.size(); i += 4)
        seen.insert(static_cast<std::uint32_t>(picture.rgba[i]) << 16 |
                    static_cast<std::uint32_t>(picture.rgba[i + 1]) << 8 | picture.rgba[i + 2]);
    return seen.size();
}

using Texts = std::vector<std::string>;

std::string videoFormat(int width, int height, int shownWidth, const std::string& ratio) {
    return "halvideosink: GstNoxVideoFormat, width=(int)" + std::to_string(width) +
           ", height=(int)" + std::to_string(height) + ", disp-width=(int)" +
           std::to_string(shownWidth) + ", disp-height=(int)" + std::to_string(height) +
           ", display-aspect-ratio=(fraction)" + ratio + ", frame-rate=(fraction)25/1;";
}

std::string audioFormat(const std::string& codec) {
    return "halaudiosink: GstNoxAudioFormat, codec=(string)" + codec +
           ", rate=(int)48000, channels=(int)2;";
}

struct Clip {
    const char* file;
    const char* videoCaps; ///< "": no video
    const char* audioCaps; ///< "": no audio
    const char* codec;     ///< of the audio
};

class PlaysClip : public testing::TestWithParam<Clip> {};

TEST_P(PlaysClip, EncodedToTheEndThroughTheSinks) {
    const auto& clip = GetParam();
    SCOPED_TRACE(clip.file);
    const bool video = *clip.videoCaps;
    const bool audio = *clip.audioCaps;
    auto player = SinkPlayer::file(clip.file);
    ASSERT_TRUE(player.reach(GST_STATE_PAUSED));

    EXPECT_EQ(player.arrived("halvideosink"), clip.videoCaps);
    EXPECT_EQ(player.arrived("halaudiosink"), clip.audioCaps);
    const auto picture = grabbed(160, 90);
    EXPECT_EQ(picture.rgba.size(), video ? 160u * 90u * 4u : 0u);
    if (video) {
        EXPECT_GT(colours(picture), 50u);
    }

    EXPECT_TRUE(player.playToEnd());
    if (video) {
        EXPECT_NE(grabbed(160, 90).rgba, picture.rgba);
    }
    EXPECT_EQ(player.said("GstNoxVideoFormat"),
              video ? Texts{videoFormat(320, 180, 320, "16/9")} : Texts{});
    EXPECT_EQ(player.said("GstNoxAudioFormat"), audio ? Texts{audioFormat(clip.codec)} : Texts{});

    ASSERT_TRUE(player.reach(GST_STATE_READY));
    EXPECT_TRUE(grabbed().rgba.empty());
    for (const char* kind : {"video", "audio"}) {
        const bool present = *(kind == std::string("video") ? clip.videoCaps : clip.audioCaps);
        EXPECT_EQ(player.said(std::string("+") + kind).size(), present ? 1u : 0u);
        EXPECT_EQ(player.said(std::string("-") + kind).size(), present ? 1u : 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Clips, PlaysClip,
    testing::Values(Clip{"h264-aac.mp4", "video/x-h264", "audio/mpeg", "AAC"},
                    Clip{"h264-only.mp4", "video/x-h264", "", ""},
                    Clip{"aac-only.mp4", "", "audio/mpeg", "AAC"},
                    Clip{"h264-subtitles.mkv", "video/x-h264", "audio/mpeg", "AAC"},
                    Clip{"h265-eac3.mp4", "video/x-h265", "audio/x-eac3", "EAC3"},
                    Clip{"mpeg4-mp3.mp4", "video/mpeg", "audio/mpeg", "MP3"},
                    Clip{"vp8-vorbis.webm", "video/x-vp8", "audio/x-vorbis", "VORBIS"},
                    Clip{"vp9-opus.webm", "video/x-vp9", "audio/x-opus", "OPUS"},
                    Clip{"av1-flac.mkv", "video/x-av1", "audio/x-flac", "FLAC"},
                    Clip{"mjpeg-pcm.mkv", "video/x-raw", "audio/x-raw", "PCM"},
                    Clip{"h264-aac.ts", "video/x-h264", "audio/mpeg", "AAC"},
                    Clip{"mpeg2-mp2.ts", "video/mpeg", "audio/mpeg", "MP2"},
                    Clip{"mpeg2-ac3.ts", "video/mpeg", "audio/x-ac3", "AC3"},
                    Clip{"theora-vorbis.ogv", "video/x-theora", "audio/x-vorbis", "VORBIS"}));

TEST(DecoderSinks, ShowEveryPictureToTheScreen) {
    auto player = SinkPlayer::file("h264-only.mp4");
    std::atomic<int> shown{0};
    std::atomic<bool> grabFailed{false};
    const auto listening = nox::Screen::instance().listen([&] {
        ++shown;
        if (grabbed(32, 18).rgba.empty())
            grabFailed = true;
    });
    ASSERT_TRUE(player.reach(GST_STATE_PAUSED));
    EXPECT_EQ(shown, 1);
    const auto first = grabbed();
    EXPECT_EQ(first.width, 320);
    EXPECT_EQ(first.height, 180);

    EXPECT_FALSE(nox::Screen::instance().grab(*std::make_unique<nox::Picture>(), -1, 5));
    EXPECT_FALSE(nox::Screen::instance().grab(*std::make_unique<nox::Picture>(), 1 << 20, 1 << 20));
    nox::Screen::instance().setVisible(false);
    EXPECT_TRUE(grabbed().rgba.empty());
    nox::Screen::instance().setVisible(true);
    EXPECT_EQ(grabbed().rgba, first.rgba);

    ASSERT_TRUE(player.seek(1.5));
    EXPECT_TRUE(waitUntil([&] { return shown == 2; }));
    EXPECT_NE(grabbed().rgba, first.rgba);
    EXPECT_NEAR(player.position(), 1.5, 0.05);
    EXPECT_TRUE(player.playToEnd());
    EXPECT_GT(shown, 2); // a slow machine may leave most of them out
    EXPECT_FALSE(grabFailed);
}

GstClockReturn waitFor(GstClock* clock, GstClockTime time, GstClockTimeDiff& jitter) {
    auto* id = gst_clock_new_single_shot_id(clock, time);
    const auto result = gst_clock_id_wait(id, &jitter);
    gst_clock_id_unref(id);
    return result;
}

TEST(DecoderSinks, EndTheirWaitsFasterThanRealTime) {
    g_setenv("NOX_PLAY_SPEED", "1000", TRUE);
    auto player = SinkPlayer::file("h264-only.mp4");
    ASSERT_TRUE(player.reach(GST_STATE_PAUSED));
    g_unsetenv("NOX_PLAY_SPEED");
    ASSERT_TRUE(player.reach(GST_STATE_PLAYING));
    auto* clock = gst_pipeline_get_clock(GST_PIPELINE(player.pipeline()));
    for (int i = 0; i < 2000; ++i) {
        auto* id =
            gst_clock_new_single_shot_id(clock, gst_clock_get_time(clock) + 1000 * GST_SECOND);
        std::thread waiter([id] { gst_clock_id_wait(id, nullptr); });
        if (i % 2)
            std::this_thread::yield();
        gst_clock_id_unschedule(id);
        waiter.join();
        gst_clock_id_unref(id);
    }
    gst_object_unref(clock);
}

TEST(DecoderSinks, ShowEveryPictureFasterThanRealTime) {
    constexpr GstClockTime speed = 40;
    g_setenv("NOX_PLAY_SPEED", std::to_string(speed).c_str(), TRUE);
    auto player = SinkPlayer::file("clip.mp4");
    const auto before = nox::Screen::instance().counters(0);
    ASSERT_TRUE(player.reach(GST_STATE_PAUSED));
    g_unsetenv("NOX_PLAY_SPEED");
    EXPECT_TRUE(player.playToEnd());
    const auto after = nox::Screen::instance().counters(0);
    EXPECT_EQ(after.shown - before.shown, 150);
    EXPECT_EQ(after.dropped, before.dropped);
    EXPECT_NEAR(player.position(), 6.0, 0.1);

    auto* clock = gst_pipeline_get_clock(GST_PIPELINE(player.pipeline()));
    const auto outside = gst_util_get_timestamp();
    const auto begin = gst_clock_get_time(clock);
    const auto inside = gst_util_get_timestamp();
    GstClockTimeDiff jitter = 0;
    EXPECT_EQ(waitFor(clock, begin + 20 * GST_SECOND, jitter), GST_CLOCK_OK);
    EXPECT_LT(jitter, 0);
    const auto insideEnd = gst_util_get_timestamp();
    const auto end = gst_clock_get_time(clock);
    const auto outsideEnd = gst_util_get_timestamp();
    EXPECT_GE(end, begin + 20 * GST_SECOND);
    EXPECT_LE(end - begin, (outsideEnd - outside) * speed);
    EXPECT_LT(insideEnd - inside, 20 * GST_SECOND);

    // Who comes late holds it up.
    const auto late = gst_util_get_timestamp();
    EXPECT_EQ(waitFor(clock, 0, jitter), GST_CLOCK_OK);
    EXPECT_EQ(jitter, 0);
    const auto held = gst_clock_get_internal_time(clock);
    const auto sinceThen = gst_util_get_timestamp() - late + 5 * GST_MSECOND;
    EXPECT_LE(held, sinceThen * speed);
    gst_object_unref(clock);
}

class Refuses : public testing::TestWithParam<Texts> {};

TEST_P(Refuses, TheRefusedStaysAwayAndTheRestPlaysOnInTime) {
    const auto& kinds = GetParam();
    std::atomic<bool> refuse{true};
    auto player = SinkPlayer::file("h264-aac.mp4");
    player.answer = [&](const std::string& kind) {
        return refuse && std::count(kinds.begin(), kinds.end(), kind) ? 0 : 1;
    };
    const bool noVideo = player.answer("video") == 0;
    const bool noAudio = player.answer("audio") == 0;

    ASSERT_TRUE(player.reach(GST_STATE_PAUSED));
    EXPECT_EQ(grabbed().rgba.empty(), noVideo);
    ASSERT_TRUE(player.seek(1.0));
    ASSERT_TRUE(player.reach(GST_STATE_PAUSED));
    EXPECT_NEAR(player.position(), 1.0, 0.1);
    ASSERT_TRUE(player.seek(0.5));
    ASSERT_TRUE(player.reach(GST_STATE_PAUSED));

    const auto start = g_get_monotonic_time();
    EXPECT_TRUE(player.playToEnd());
    EXPECT_GT(static_cast<double>(g_get_monotonic_time() - start) / G_USEC_PER_SEC, 1.3);
    EXPECT_NEAR(player.position(), 2.0, 0.1);
    EXPECT_EQ(grabbed().rgba.empty(), noVideo);
    EXPECT_EQ(player.said("GstNoxVideoFormat").empty(), noVideo);
    EXPECT_EQ(player.said("GstNoxAudioFormat").empty(), noAudio);
    EXPECT_EQ(player.requests().size(), 2u) << "a seek does not ask again";

    ASSERT_TRUE(player.reach(GST_STATE_READY));
    EXPECT_EQ(player.said("video;").size(), noVideo ? 0u : 2u);
    EXPECT_EQ(player.said("audio;").size(), noAudio ? 0u : 2u);

    refuse = false;
    ASSERT_TRUE(player.reach(GST_STATE_PAUSED));
    EXPECT_EQ(player.requests().size(), 4u) << "a new activation asks again";
    EXPECT_FALSE(grabbed().rgba.empty());
}

INSTANTIATE_TEST_SUITE_P(Kinds, Refuses,
                         testing::Values(Texts{"video"}, Texts{"audio"}, Texts{"video", "audio"}));

/// They ask one after the other until a request is forwarded.
TEST(DecoderSinks, GoDownWhileARequestIsPending) {
    const struct {
        int answer;
        bool forwarded; // and so both ask
    } rows[] = {{0, false}, {1, false}, {0, true}, {1, true}};
    for (const auto& [answer, forwarded] : rows) {
        SCOPED_TRACE(std::to_string(answer) + (forwarded ? " forwarded" : ""));
        Held held;
        auto player = SinkPlayer::file("h264-aac.mp4");
        player.answer = [&](const std::string&) { return held.wait(); };
        player.setState(GST_STATE_PLAYING);
        ASSERT_TRUE(waitUntil([&] {
            return !player.arrived("halvideosink").empty() &&
                   !player.arrived("halaudiosink").empty() && held.inside() > 0;
        }));
        EXPECT_FALSE(waitUntil([&] { return held.inside() > 1; }, std::chrono::milliseconds(200)));
        if (forwarded) {
            player.forwardRequest();
            ASSERT_TRUE(waitUntil([&] { return held.inside() == 2; }));
        }
        const std::size_t asking = forwarded ? 2 : 1;
        std::thread application([&] { player.setState(GST_STATE_READY); });
        EXPECT_TRUE(waitUntil([&] { return player.askersGoingDown() > 0; }));
        held.release(answer);
        application.join();
        EXPECT_TRUE(player.reach(GST_STATE_READY));
        EXPECT_EQ(player.requests().size(), asking) << "nobody asks on the way down";
        EXPECT_EQ(player.said("GstNoxDecoderNeeded").size(), answer ? 2 * asking : 0U);
        // They go down one after the other: of two, the second may begin before its turn.
        EXPECT_LT(player.said("Format").size(), asking);
    }
}

TEST(DecoderSinks, HoldAboutASecondOfEncodedData) {
    auto player = SinkPlayer::file("clip.mp4"); // 25 frames a second, for longer
    ASSERT_TRUE(player.reach(GST_STATE_PAUSED));
    const auto taken = [&] { return player.count("halvideosink"); };
    EXPECT_TRUE(waitUntil([&] { return taken() > 20; })) << taken();
    EXPECT_FALSE(waitUntil([&] { return taken() > 40; }, std::chrono::milliseconds(200)));
    ASSERT_TRUE(player.seek(2.0));
    EXPECT_TRUE(waitUntil([&] { return taken() > 40; })) << "a seek empties it";
}

/// However long data stays away, what came before goes on being shown: about a second of it.
TEST(DecoderSinks, ShowWhatTheyHoldWhileNothingComes) {
    auto& watch = support::SinkWatch::instance();
    watch.restart({true, false, false});
    auto player = SinkPlayer::file("h264-only.mp4");
    player.hold = [&watch](std::size_t count) {
        const auto shown = [&watch] { return watch.video().buffers.size(); };
        const auto before = shown();
        if (count % 24 == 23) { // after a second of media
            EXPECT_TRUE(waitUntil([&] { return shown() >= before + 12; }));
        }
    };
    EXPECT_TRUE(player.playToEnd());
    EXPECT_EQ(watch.video().buffers.size(), 50U);
}

TEST(DecoderSinks, GoOnWhenNobodyAnswersAndTakeTheFirstAnswer) {
    const auto askTwice = [](gint first, bool connect) {
        auto* sink = gst_element_factory_make("halaudiosink", nullptr);
        auto no =
            +[](GstElement*, const gchar*, gpointer answer) { return GPOINTER_TO_INT(answer); };
        if (connect) {
            g_signal_connect(sink, "decoder-request", G_CALLBACK(no), GINT_TO_POINTER(first));
            g_signal_connect(sink, "decoder-request", G_CALLBACK(no), GINT_TO_POINTER(7));
        }
        gint answer = -1;
        g_signal_emit_by_name(sink, "decoder-request", "audio", &answer);
        gst_object_unref(sink);
        return answer;
    };
    EXPECT_EQ(askTwice(0, true), 0);
    EXPECT_EQ(askTwice(3, true), 3);
    EXPECT_NE(askTwice(0, false), 0);
}

TEST(DecoderSinks, FollowCapsThatChangeMidStream) {
    const auto file = [](const std::string& name, const std::string& demuxer) {
        return "filesrc location=" TEST_MEDIA_DIR "/" + name + " ! " + demuxer;
    };
    auto player = SinkPlayer::launch(
        "concat name=video ! halvideosink concat name=audio ! halaudiosink " +
        file("h264-only.mp4", "qtdemux ! queue ! video. ") +
        file("par-8x9.mp4", "qtdemux ! queue ! video. ") +
        file("vp8-vorbis.webm", "matroskademux name=webm webm.video_0 ! queue ! video. ") +
        file("aac-only.mp4", "qtdemux ! queue ! audio. ") + "webm.audio_0 ! queue ! audio.");
    const auto start = g_get_monotonic_time();
    EXPECT_TRUE(player.playToEnd());
    EXPECT_EQ(player.requests().size(), 2u);
    EXPECT_EQ(player.said("GstNoxVideoFormat"),
              (Texts{videoFormat(320, 180, 320, "16/9"), videoFormat(360, 240, 320, "4/3"),
                     videoFormat(320, 180, 320, "16/9")}));
    EXPECT_EQ(player.said("GstNoxAudioFormat"), (Texts{audioFormat("AAC"), audioFormat("VORBIS")}));
    EXPECT_GT(g_get_monotonic_time() - start, 3.5 * G_USEC_PER_SEC) << "all three were played";
}

struct Links {
    std::atomic<int> made{0}, toRunning{0};
};

void bufferLinked(GstPad* pad, GstPad* /*peer*/, gpointer links) {
    ++static_cast<Links*>(links)->made;
    static_cast<Links*>(links)->toRunning += gst_pad_is_active(pad) ? 1 : 0;
}

void elementAdded(GstBin* /*pipeline*/, GstBin* bin, GstElement* element, gpointer links) {
    const auto factoryOf = [](gpointer object) {
        auto* factory = gst_element_get_factory(GST_ELEMENT(object));
        return std::string(factory != nullptr ? GST_OBJECT_NAME(factory) : "");
    };
    if (factoryOf(element) != "queue" || factoryOf(bin).rfind("hal", 0) != 0)
        return;
    GstPad* pad = gst_element_get_static_pad(element, "sink");
    g_signal_connect(pad, "linked", G_CALLBACK(bufferLinked), links);
    gst_object_unref(pad);
}

/// What is being activated may forget a flush that comes in between, and then wait for ever.
TEST(DecoderSinks, AreLedIntoABufferThatRuns) {
    Links links;
    auto player = SinkPlayer::file("clip.mp4");
    g_signal_connect(player.pipeline(), "deep-element-added", G_CALLBACK(elementAdded), &links);
    ASSERT_TRUE(player.reach(GST_STATE_PAUSED));
    EXPECT_EQ(links.made, 2);
    EXPECT_EQ(links.toRunning, 2);
}

TEST(DecoderSinks, GoDownWhileTheOldCapsDataIsStillToBeShown) {
    for (const bool goDown : {true, false}) {
        support::SinkWatch::instance().restart({true, false, true});
        auto player = SinkPlayer::launch("concat name=video ! halvideosink "
                                         "videotestsrc num-buffers=5 ! vp8enc ! video. "
                                         "videotestsrc num-buffers=5 ! vp9enc deadline=1 ! video.");
        ASSERT_TRUE(player.reach(GST_STATE_PAUSED));
        ASSERT_TRUE(waitUntil([&] { return player.count("halvideosink", "video/x-vp9") == 1; }));
        if (goDown) {
            EXPECT_TRUE(player.reach(GST_STATE_READY));
            continue;
        }
        EXPECT_TRUE(player.playToEnd());
        EXPECT_GT(support::SinkWatch::instance().video().buffers.size(), 5U) << "of both";
    }
}

TEST(DecoderSinks, NameWhatToInstallWhenADecoderIsMissing) {
    auto* factory = gst_element_factory_find("theoradec");
    ASSERT_NE(factory, nullptr);
    const auto rank = gst_plugin_feature_get_rank(GST_PLUGIN_FEATURE(factory));
    gst_plugin_feature_set_rank(GST_PLUGIN_FEATURE(factory), GST_RANK_NONE);
    auto player = SinkPlayer::file("theora-vorbis.ogv");
    player.setState(GST_STATE_PAUSED);
    const auto end = player.finish();
    EXPECT_NE(end.find("install"), std::string::npos) << end;
    EXPECT_NE(end.find("Theora"), std::string::npos) << end;
    EXPECT_TRUE(player.sawMissingPlugin());
    gst_plugin_feature_set_rank(GST_PLUGIN_FEATURE(factory), rank);
    gst_object_unref(factory);
}

TEST(DecoderSinks, ReportBrokenData) {
    auto player = SinkPlayer::launch("fakesrc num-buffers=100 sizetype=fixed sizemax=500 "
                                     "filltype=random format=time ! video/x-h264 ! halvideosink");
    player.setState(GST_STATE_PLAYING);
    const auto end = player.finish();
    EXPECT_NE(end, "");
    EXPECT_NE(end, "EOS");
    ASSERT_TRUE(player.reach(GST_STATE_READY));
    EXPECT_EQ(player.said("-video").size(), 1u) << "the decoder is given back";
}

/// Lends a device-less element the place of the best output device.
class AsDevice {
public:
    AsDevice(const char* factory, const char* variable)
        : m_factory(GST_PLUGIN_FEATURE(gst_element_factory_find(factory))), m_variable(variable) {
        gst_plugin_feature_set_rank(m_factory, GST_RANK_PRIMARY + 50);
        setenv(variable, "somewhere", 1);
    }
    ~AsDevice() {
        setenv(m_variable, "", 1);
        gst_plugin_feature_set_rank(m_factory, GST_RANK_NONE);
        gst_object_unref(m_factory);
    }
    AsDevice(const AsDevice&) = delete;

private:
    GstPluginFeature* const m_factory;
    const char* const m_variable;
};

TEST(DecoderSinks, RenderToADeviceWhenThereIsOne) {
    const AsDevice video("fakevideosink", "DISPLAY");
    const AsDevice audio("fakeaudiosink", "PULSE_SERVER");
    auto& screen = nox::Screen::instance();
    screen.setVolume(0.25);
    auto player = SinkPlayer::file("h264-aac.mp4");
    for (const int answer : {1, 0, 1}) {
        player.answer = [&](const std::string&) { return answer; };
        ASSERT_TRUE(player.reach(GST_STATE_PAUSED));
        EXPECT_EQ(grabbed().rgba.empty(), !answer);
        EXPECT_TRUE(player.playToEnd());
        EXPECT_EQ(grabbed().rgba.empty(), !answer);
        auto* volume = gst_bin_get_by_name(GST_BIN(player.pipeline()), "nox-volume");
        ASSERT_EQ(volume != nullptr, answer == 1);
        if (volume) {
            gdouble value = -1;
            g_object_get(volume, "volume", &value, nullptr);
            EXPECT_DOUBLE_EQ(value, 0.25);
            gst_object_unref(volume);
        }
        ASSERT_TRUE(player.reach(GST_STATE_READY));
    }
    screen.setVolume(1.0);
}

TEST(PassElements, HandOnWhatTheyGet) {
    auto player =
        SinkPlayer::launch("videotestsrc num-buffers=3 ! noxvptsfilter ! edrvessplitter ! "
                           "halvideosink");
    EXPECT_TRUE(player.playToEnd());
    EXPECT_EQ(player.arrived("halvideosink"), "video/x-raw");
    EXPECT_GT(colours(grabbed()), 5u);
}

} // namespace
