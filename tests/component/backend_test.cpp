// The backend's answers to its host and to its pipeline, without media: what it logs, stores and
// raises.

#include "backend/gstnox_avcomponent.h"
#include "backend/gstnox_buswatch.h"
#include "one_backend.h"
#include "script/script_events.h"
#include "support/wait_until.h"

#include <future>
#include <limits>
#include <stdexcept>
#include <thread>

namespace {

using Types = std::vector<UVAEvent::Type>;
using namespace std::string_literals;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

class BackendTest : public OneBackend {
protected:
    void postApplicationMessage(GstStructure* structure) {
        handle(gst_message_new_application(nullptr, structure));
    }
    void handle(GstMessage* message) {
        backend.handleGstMessages(message);
        gst_message_unref(message);
    }
    int init(TestSource* source, bool audioOnly = false) {
        UVABackend::SourceDescription* sources[] = {source, nullptr};
        return backend.initBackend("o", sources, false, audioOnly);
    }
    bool isAskedForADecoder(int times = 1) {
        return support::waitUntil(
            [=] { return client.count(UVAEvent::BackendResourceRequestAsync) == times; });
    }
    void postError(const char* elementName, GQuark domain, int code) {
        GstElement* element = gst_bin_new(elementName);
        gst_object_ref_sink(element);
        GError* error = g_error_new_literal(domain, code, "broken");
        handle(gst_message_new_error(GST_OBJECT(element), error, "details"));
        g_error_free(error);
        gst_object_unref(element);
    }
};

// The message has two events; the client has enough with the first.
TEST_F(BackendTest, AReleaseFromInsideAnEventIsTheEnd) {
    auto* other = new GstNoxBackend(UVABackend::VideoElement, &client);
    client.hook = [&](UVAEvent&) { other->release(); };
    GstMessage* message = gst_message_new_buffering(nullptr, 100);
    other->handleGstMessages(message);
    gst_message_unref(message);
    EXPECT_EQ(client.types(), Types{UVAEvent::BufferingProgress});
}

TEST_F(BackendTest, InitBackendAnswersForEverySource) {
    LogCapture log(gst_backend_debug);
    EXPECT_EQ(backend.initBackend("o", nullptr, false), UVABackend::Failure);
    EXPECT_TRUE(log.has("ERROR ***E: no sources"));

    EXPECT_EQ(init(nullptr, true), UVABackend::Success);
    EXPECT_TRUE(log.has("INFO origin='o' audio_only=1"));
    EXPECT_TRUE(log.has("INFO  number of sources is 0"));
    EXPECT_TRUE(log.has("DEBUG transition 1 -> 2"));

    // An unknown type, a media source without a MIME type and a missing URL fail; the rest is done.
    auto* noUrl = new TestSource("");
    noUrl->url = nullptr;
    auto* media = new TestSource("", UVABackend::SourceDescription::MseStreaming);
    media->mimeType = nullptr;
    UVABackend::SourceDescription* odd[] = {new TestSource("x", 7), media, noUrl, nullptr};
    EXPECT_EQ(backend.initBackend(nullptr, odd, false), UVABackend::Failure);
    EXPECT_TRUE(log.has("WARN ***W: source[0]: type=7 is not handled"));
    EXPECT_TRUE(log.has("INFO  number of sources is 3"));
}

TEST_F(BackendTest, SecondInitBackendLeavesTheFirstAlone) {
    ASSERT_EQ(init(new TestSource("file:///nowhere/a")), UVABackend::Success);
    LogCapture log(gst_backend_debug);
    EXPECT_EQ(init(new TestSource("file:///nowhere/b")), UVABackend::Failure);
    EXPECT_TRUE(log.has("ERROR ***E: playbin still open"));
    // After the player is gone there may be another.
    EXPECT_EQ(backend.releaseResources(UVABackend::AllResources), UVABackend::Success);
    EXPECT_EQ(init(new TestSource("file:///nowhere/c")), UVABackend::Success);
}

// What is taken apart, and what acts on a player, without one.
TEST_F(BackendTest, OddArgumentsAreAnswered) {
    UVAMediaBackend& host = backend;
    EXPECT_EQ(host.attachSource(nullptr), UVABackend::Failure);
    EXPECT_EQ(host.writeData(nullptr, ~0U, UVABackend::DataError), 1);
    EXPECT_EQ(host.writeData(new PauseFinishedEvent, 1, UVABackend::Data), 1);
    EXPECT_EQ(host.writeData(new NeedMSEDataEvent(5, -3), 1, UVABackend::Data), 1);
    EXPECT_NE(host.eventCompleted(nullptr, true), UVABackend::Success);
    EXPECT_EQ(host.selectComponent(nullptr), 1);
    EXPECT_EQ(host.unselectComponent(nullptr), 1);
    EXPECT_EQ(
        host.addTrack(static_cast<UVABackend::AVComponent::Kind>(99), nullptr, nullptr, nullptr),
        1);
    EXPECT_EQ(host.setKeySystem(static_cast<const char*>(nullptr)), 1);
    EXPECT_EQ(host.setKeySystem(std::string(100000, 'k').c_str()), 1);
    EXPECT_EQ(host.setVideoWindowAndClip({INT_MIN, INT_MAX, -1, 0}, {}), 1);
    EXPECT_EQ(host.getVideoFrame(nullptr, 0), UVABackend::Failure);
    EXPECT_EQ(host.startCapture(-1, 0), UVABackend::Failure);
    EXPECT_EQ(host.setVolume(nan), UVABackend::Failure);
    for (const auto operation : {&UVAMediaBackend::load, &UVAMediaBackend::play,
                                 &UVAMediaBackend::pause, &UVAMediaBackend::suspend})
        EXPECT_EQ((host.*operation)(), 1);
    EXPECT_EQ(host.pauseAsync(), 1);
    EXPECT_EQ(client.count(UVAEvent::PauseFinished), 1);
    EXPECT_EQ(host.releaseBackendAsynchronously(), 1);
    EXPECT_EQ(client.count(UVAEvent::AsyncReleaseFinished), 1);
}

TEST_F(BackendTest, ScriptsHearOfErrors) {
    ScriptControl control;
    ScriptEvents::Inbox inbox(control);
    ScriptEvents::Watch failure(ScriptEvents::Kind::State, "failed", control);
    postError("demuxer", GST_STREAM_ERROR, GST_STREAM_ERROR_DEMUX);
    const auto signal = inbox.take();
    ASSERT_TRUE(signal);
    EXPECT_EQ(*signal,
              ScriptValue({{"name", "PipelineError"}, {"element", "demuxer"}, {"text", "broken"}}));
    EXPECT_TRUE(failure.hasSeen());
}

TEST_F(BackendTest, OnlyNormalSpeed) {
    for (const double rate : {1.0, 1.005, 0.995})
        EXPECT_EQ(backend.setPlaybackRate(rate), 1) << rate;
    for (const double rate : {2.0, 0.0, -1.0, nan, infinity})
        EXPECT_EQ(backend.setPlaybackRate(rate), 2) << rate;
    std::vector<UVAMediaBackend::SpeedRange> ranges;
    EXPECT_EQ(backend.getPlaybackSpeedRanges(ranges), 1);
    ASSERT_EQ(ranges.size(), 1U);
    EXPECT_EQ(ranges[0].minimum, 1.0);
    EXPECT_EQ(ranges[0].maximum, 1.0);
}

TEST_F(BackendTest, LeavingReadyAnnouncesThatDataIsAwaited) {
    backend.changeState(GST_STATE_PLAYING); // from NULL: nothing
    EXPECT_EQ(client.types(), Types{});
    backend.changeState(GST_STATE_READY);
    backend.changeState(GST_STATE_PAUSED);
    const Types awaited{UVAEvent::BufferingStreamUnderrun, UVAEvent::BufferingProgress};
    EXPECT_EQ(client.types(), awaited);
    backend.changeState(GST_STATE_PLAYING);
    EXPECT_EQ(client.types(), awaited);
}

TEST_F(BackendTest, EventsAreLoggedByNameAndDelivered) {
    const std::pair<int, const char*> rows[] = {
        {0, "BackendResourceRevoked"},  {11, "DRMRightsError"},  {22, "BufferingProgress"},
        {33, "InBandVTTUpdate"},        {42, "SeekCompletedEx"}, {54, "PauseFinished"},
        {3000, "PastLastNonOoifEvent"}, {55, "unknown Event"},   {-1, "unknown Event"},
    };
    LogCapture log(gst_backend_debug);
    std::vector<std::string> expected;
    for (const auto& [number, name] : rows) {
        backend.raiseEvent(new UVAEvent(static_cast<UVAEvent::Type>(number)), GST_LEVEL_INFO, "%d",
                           number);
        expected.push_back("INFO "s + name + ": (" + std::to_string(number) + ")");
    }
    EXPECT_EQ(log.lines(), expected);
    gst_debug_category_set_threshold(gst_backend_debug, GST_LEVEL_WARNING);
    for (const auto level : {GST_LEVEL_WARNING, GST_LEVEL_FIXME})
        backend.raiseEvent(new PauseFinishedEvent, level, "%s", "");
    EXPECT_EQ(log.lines().size(), expected.size() + 1) << "only what is asked for";
    EXPECT_EQ(client.types().size(), expected.size() + 2) << "delivered all the same";
}

// What is handled, and of the pipeline's parts only what they alone know.
TEST_F(BackendTest, TheBusKeepsWhatIsHandled) {
    const auto pipeline = GstPtr<GstElement>::sink(gst_bin_new("pipeline"));
    GstElement* part = gst_bin_new("part");
    gst_bin_add(GST_BIN(pipeline.get()), part);
    GError* error = g_error_new_literal(GST_STREAM_ERROR, 1, "");
    const auto changed = [](GstElement* source) {
        return gst_message_new_state_changed(source ? GST_OBJECT(source) : nullptr, GST_STATE_NULL,
                                             GST_STATE_READY, GST_STATE_VOID_PENDING);
    };
    const std::vector<std::pair<GstMessage*, bool>> rows = {
        {gst_message_new_eos(GST_OBJECT(part)), true},
        {gst_message_new_error(GST_OBJECT(part), error, ""), true},
        {gst_message_new_buffering(GST_OBJECT(part), 1), true},
        {gst_message_new_application(GST_OBJECT(part), gst_structure_new_empty("a")), true},
        {changed(pipeline.get()), true},
        {changed(nullptr), true},
        {changed(part), false},
        {gst_message_new_warning(GST_OBJECT(part), error, ""), false},
        {gst_message_new_element(GST_OBJECT(part), gst_structure_new_empty("a")), false},
        {gst_message_new_stream_start(GST_OBJECT(pipeline.get())), false},
    };
    for (const auto& [message, kept] : rows) {
        gst_message_ref(message);
        EXPECT_EQ(GstNoxBusWatch::_sift_message(nullptr, message, nullptr),
                  kept ? GST_BUS_PASS : GST_BUS_DROP)
            << GST_MESSAGE_TYPE_NAME(message);
        EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(message), kept ? 2 : 1);
        if (kept)
            gst_message_unref(message);
        gst_message_unref(message);
    }
    g_error_free(error);
}

TEST_F(BackendTest, ARemovedBusWatchHandsNothingOver) {
    const auto bus = GstPtr<GstBus>::adopt(gst_bus_new());
    const auto watch = GstNoxBusWatch::add(
        bus.get(), [&](GstMessage* message) { backend.handleGstMessages(message); });
    gst_bus_post(bus.get(), gst_message_new_eos(nullptr));
    EXPECT_TRUE(support::waitUntil([&] { return client.count(UVAEvent::PlaybackFinished) == 1; }));
    watch->remove(bus.get());
    gst_bus_post(bus.get(), gst_message_new_eos(nullptr));
    EXPECT_TRUE(support::waitUntil([&] { return watch.use_count() == 1; })) << "GLib's share";
    EXPECT_EQ(client.count(UVAEvent::PlaybackFinished), 1);
}

TEST_F(BackendTest, BusMessagesBecomeEvents) {
    LogCapture log(gst_backend_debug);
    handle(gst_message_new_eos(nullptr));
    handle(gst_message_new_buffering(nullptr, 99));
    handle(gst_message_new_buffering(nullptr, 100));
    handle(gst_message_new_duration_changed(nullptr)); // not for the client
    EXPECT_EQ(client.types(),
              (Types{UVAEvent::PlaybackFinished, UVAEvent::BufferingProgress,
                     UVAEvent::BufferingProgress, UVAEvent::BufferingStreamBuffered}));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "INFO End-Of-Stream reached", "DEBUG PlaybackFinished: ()",
                               "DEBUG BufferingProgress: (99%)", "DEBUG BufferingProgress: (100%)",
                               "DEBUG BufferingStreamBuffered: ()"}));
    const auto* finished = client.last<PlaybackFinishedEvent>();
    EXPECT_EQ(std::pair(finished->reason, finished->detail), std::pair(0, 0));
}

TEST_F(BackendTest, OnlyResourceErrorsOfTheSourceReachTheClient) {
    const GQuark resource = GST_RESOURCE_ERROR;
    const struct {
        const char* element;
        GQuark domain;
        int code;
        std::size_t events;
    } rows[] = {
        {"source", resource, GST_RESOURCE_ERROR_FAILED, 1},
        {"source", resource, GST_RESOURCE_ERROR_NOT_FOUND, 1},
        {"source", resource, GST_RESOURCE_ERROR_NOT_AUTHORIZED, 1},
        {"source", resource, 16, 0},
        {"source", resource, 0, 0},
        {"demux", resource, GST_RESOURCE_ERROR_NOT_FOUND, 0},
        {"source", GST_STREAM_ERROR, GST_STREAM_ERROR_DECODE, 0},
        {"source", GST_CORE_ERROR, GST_CORE_ERROR_FAILED, 0},
        {"source", g_quark_from_static_string("odd-domain"), 3, 0},
    };
    LogCapture log(gst_backend_debug);
    for (const auto& row : rows) {
        client.clear();
        postError(row.element, row.domain, row.code);
        EXPECT_EQ(client.types(), Types(row.events, UVAEvent::BufferingNetworkError))
            << g_quark_to_string(row.domain) << " " << row.code;
    }
    EXPECT_TRUE(log.has("ERROR Error received from element 'source': broken (3)"));
    EXPECT_TRUE(log.has("ERROR Debugging information: details"));
    EXPECT_TRUE(log.has("WARN ***W: gst-resource-error-quark: broken (3) (details)"));
    EXPECT_TRUE(log.has("ERROR BufferingNetworkError: (GST_RESOURCE_ERROR:3)"));
    EXPECT_TRUE(log.has("ERROR Unhandled error message! Unknown error domain: 'odd-domain'"));
}

TEST_F(BackendTest, VideoFormatBecomesMetadata) {
    postApplicationMessage(gst_structure_new("GstNoxVideoFormat", "width", G_TYPE_INT, 720,
                                             "height", G_TYPE_INT, 576, "display-aspect-ratio",
                                             GST_TYPE_FRACTION, 16, 9, "frame-rate",
                                             GST_TYPE_FRACTION, 25, 1, nullptr));
    const auto* metadata = client.last<NewMetadataEvent>();
    ASSERT_NE(metadata, nullptr);
    EXPECT_EQ(metadata->width, 720);
    EXPECT_EQ(metadata->height, 576);
    EXPECT_NEAR(metadata->pixelAspectRatio, 1.4222, 0.0001);

    // Incomplete and foreign messages change nothing.
    postApplicationMessage(gst_structure_new_empty("GstNoxVideoFormat"));
    postApplicationMessage(
        gst_structure_new("GstNoxVideoFormat", "width", G_TYPE_STRING, "wide", nullptr));
    postApplicationMessage(gst_structure_new_empty("GstNoxDecoderNeeded"));
    postApplicationMessage(gst_structure_new_empty("somebody-elses"));
    EXPECT_EQ(client.count(UVAEvent::NewMetadata), 1);
}

TEST_F(BackendTest, AnyChangeOfTheMetadataIsToldOnce) {
    using Shape = std::tuple<int, int, double>; // the pixels' last
    const struct {
        std::function<void(GstNoxBackend&)> change;
        bool told;
        Shape shape;
        double seconds;
    } rows[] = {
        {[](auto&) {}, false, {-1, -1, 1}, 0},
        {[](auto& b) { b.setMetaData(720, 576); }, true, {720, 576, 1}, 0},
        {[](auto& b) { b.setMetaData(720, 576); }, false, {720, 576, 1}, 0},
        {[](auto& b) { b.setMetaData(720, 480); }, true, {720, 480, 1}, 0},
        {[](auto& b) { b.setMetaData(640, 480); }, true, {640, 480, 1}, 0},
        {[](auto& b) { b.setMetaData(1.0009); }, false, {640, 480, 1}, 0},
        {[](auto& b) { b.setMetaData(1.25); }, true, {640, 480, 1.25}, 0},
        {[](auto& b) { b.setMetaData(0.75); }, true, {640, 480, 0.75}, 0},
        {[](auto& b) { b.setMetaData(2500000000LL); }, true, {640, 480, 0.75}, 2.5},
        {[](auto& b) { b.setMetaData(2500000000LL); }, false, {640, 480, 0.75}, 2.5},
        {[](auto& b) { b.setMetaData(-1LL); }, true, {640, 480, 0.75}, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        client.clear();
        row.change(backend);
        backend.checkMetaDataChanged();
        backend.checkMetaDataChanged();
        ASSERT_EQ(client.count(UVAEvent::NewMetadata), row.told ? 1 : 0);
        if (const auto* told = client.last<NewMetadataEvent>()) {
            EXPECT_EQ(Shape(told->width, told->height, told->pixelAspectRatio), row.shape);
            EXPECT_EQ(told->duration, row.seconds);
        }
        Shape shape;
        auto& [width, height, ratio] = shape;
        EXPECT_EQ(backend.getNativeSize(width, height, ratio), UVABackend::Success);
        EXPECT_EQ(shape, row.shape);
    }
}

TEST_F(BackendTest, TheLastDecoderGivenBackIsReported) {
    const auto needs = [this](const char* type) {
        postApplicationMessage(
            gst_structure_new("GstNoxDecoderNeeded", "type", G_TYPE_STRING, type, nullptr));
    };
    needs("+audio");
    needs("+video");
    needs("-video");
    EXPECT_EQ(client.types(), Types{});
    needs("-audio");
    EXPECT_EQ(client.types(), Types{UVAEvent::BackendResourceReleased});
    needs("-subtitle"); // unknown, and the set is empty
    EXPECT_EQ(client.count(UVAEvent::BackendResourceReleased), 2);
}

TEST_F(BackendTest, ComponentsComeAndGoOnce) {
    LogCapture log(gst_backend_debug);
    EXPECT_EQ(backend.addComponent("video", "video_0"), 1);
    const auto* added = client.last<MultiComponentChangedEvent>();
    ASSERT_NE(added, nullptr);
    ASSERT_EQ(added->added.size(), 1U);
    const auto& video = *added->added.front();
    EXPECT_TRUE(video.active);
    EXPECT_EQ(video.type, 0);
    EXPECT_EQ(video.shape, 4);
    EXPECT_EQ(video.bitrate, 2560000);
    EXPECT_STREQ(video.channel, "5_1");
    EXPECT_EQ(video.encoding, "UNKNOWN_ENCODING");
    EXPECT_EQ(video.language, "und");

    EXPECT_EQ(backend.addComponent("video", "video_0"), 0);
    EXPECT_EQ(backend.addComponent("audio", "audio_1"), 1);
    const auto& audio = *client.last<MultiComponentChangedEvent>()->added.front();
    EXPECT_FALSE(audio.active);
    EXPECT_EQ(audio.type, 1);
    EXPECT_EQ(audio.shape, 0);
    EXPECT_EQ(audio.bitrate, 128000);
    EXPECT_STREQ(audio.channel, "1_1");
    EXPECT_EQ(backend.addComponent("text", "text_0"), 0);
    EXPECT_EQ(backend.addComponent(nullptr, "text_0"), 0);
    EXPECT_TRUE(log.has("WARN ***W: component 'video_0' of type 'video' already exists."));
    EXPECT_TRUE(log.has("WARN ***W: invalid component type 'text'"));
    EXPECT_EQ(client.count(UVAEvent::MultiComponentChanged), 2);

    backend.removeComponent("video_0");
    const auto* removed = client.last<MultiComponentChangedEvent>();
    ASSERT_EQ(removed->removed.size(), 1U);
    EXPECT_EQ(removed->removed.front(), &video);
    EXPECT_FALSE(backend.hasComponent("video_0"));
    backend.removeComponent("video_0");
    EXPECT_TRUE(log.has("WARN ***W: component 'video_0' does not exist in collection."));
    EXPECT_EQ(client.count(UVAEvent::MultiComponentChanged), 3);
}

TEST_F(BackendTest, SeekTargetsAreChecked) {
    const auto seek = [this](double seconds) {
        client.clear();
        const int result = backend.setPosition(seconds);
        const Types expected{result == 1 ? UVAEvent::CancelDataRequestsAsync
                                         : UVAEvent::SeekCompletedEx};
        EXPECT_EQ(client.types(), expected) << seconds;
        return result;
    };
    EXPECT_EQ(seek(-0.5), 0);
    EXPECT_EQ(seek(nan), 0);
    EXPECT_EQ(seek(-infinity), 0);
    EXPECT_EQ(seek(10.0), 1); // no duration known: any target will do
    EXPECT_EQ(seek(infinity), 0);
    EXPECT_EQ(seek(1e300), 1);
    backend.changeDuration(20.0);
    EXPECT_EQ(seek(30.0), 1); // held against the nanosecond count
    EXPECT_EQ(seek(2.1e10), 0);
    EXPECT_EQ(client.last<SeekCompletedExEvent>()->outcome,
              SeekCompletedExEvent::SeekOutcome::Failed);
    backend.setMetaData(static_cast<long long>(-1));
    EXPECT_EQ(seek(0.5), 0); // live
}

TEST_F(BackendTest, SeekWithoutPlayerFailsInItsSecondPhase) {
    ASSERT_EQ(backend.setPosition(3.0), 1);
    const CancelDataRequestsAsyncEvent done(3.0);
    EXPECT_EQ(backend.eventCompleted(&done, true), 1);
    EXPECT_EQ(client.count(UVAEvent::SeekCompletedEx), 1);
    EXPECT_EQ(backend.eventCompleted(&done, true), 1); // nothing pending: only logged
    EXPECT_EQ(client.count(UVAEvent::SeekCompletedEx), 1);
    LogCapture log(gst_backend_debug);
    const UVAAsyncEvent odd(UVAEvent::CacheUpdateRequestAsync);
    backend.eventCompleted(&odd, true);
    EXPECT_TRUE(log.has("WARN Unsupported async event (43) received!"));
}

TEST_F(BackendTest, DurationGrowsOnlyUntilKnown) {
    double seconds = -7;
    UVABackend::TimeRange** ranges = nullptr;
    EXPECT_EQ(backend.getSeekableTimeRanges(nullptr, ranges), 1);
    EXPECT_EQ(ranges[0], nullptr);
    delete[] ranges;
    EXPECT_EQ(backend.getDuration(seconds), UVABackend::NotAvailable);
    EXPECT_EQ(seconds, -7);
    backend.setMetaData(static_cast<long long>(-1));
    EXPECT_EQ(backend.getDuration(seconds), 1);
    EXPECT_DOUBLE_EQ(seconds, -1e-9);
    EXPECT_EQ(backend.setContentSize(3, 20000), 1);
    backend.changeDuration(30.0);
    EXPECT_EQ(backend.getDuration(seconds), 1);
    EXPECT_EQ(seconds, 20.0);
    EXPECT_EQ(backend.getSeekableTimeRanges(nullptr, ranges), 1);
    ASSERT_NE(ranges[0], nullptr);
    EXPECT_EQ(ranges[0]->start, 0);
    EXPECT_EQ(ranges[0]->end, 20e9); // the nanosecond count
    EXPECT_EQ(ranges[1], nullptr);
    delete ranges[0];
    delete[] ranges;
}

TEST_F(BackendTest, OneSinkAsksAndTheOthersAreTurnedAway) {
    init(nullptr, true);
    const auto request = [this](const char* type) {
        return DecoderHandshake::decoder_request_cb(nullptr, type, &backend.decoders());
    };
    int first = -1;
    std::thread sink([&] { first = request("video"); });
    ASSERT_TRUE(isAskedForADecoder());
    EXPECT_TRUE(client.last<BackendResourceRequestAsyncEvent>()->audioOnly);
    const auto waits = backend.decoders().waits();
    ASSERT_EQ(waits.size(), 1U);
    EXPECT_EQ(waits[0].whom, DecoderHandshake::WaitFor::Client);
    EXPECT_EQ(waits[0].kind, "video");
    LogCapture log(gst_backend_debug);
    EXPECT_EQ(request("audio"), 0); // neither asks nor waits
    EXPECT_TRUE(log.has("ERROR ***E: resources not available (1)"));
    EXPECT_EQ(client.last<DecodeErrorEvent>()->reason, 2);

    const BackendResourceRequestAsyncEvent answer(true);
    backend.eventCompleted(&answer, false);
    sink.join();
    EXPECT_EQ(first, 0);
    EXPECT_EQ(client.count(UVAEvent::DecodeError), 2);

    // After a refusal the next request asks again; after a grant nobody asks any more.
    std::thread again([&] { first = request("video"); });
    ASSERT_TRUE(isAskedForADecoder(2));
    backend.eventCompleted(&answer, true);
    again.join();
    EXPECT_EQ(first, 1);
    EXPECT_EQ(request("audio"), 1);
    EXPECT_TRUE(backend.decoders().waits().empty());
    EXPECT_EQ(client.count(UVAEvent::BackendResourceRequestAsync), 2);
}

TEST_F(BackendTest, AClientThatThrowsWhenItIsAskedHasRefused) {
    client.hook = [&, questions = 0](UVAEvent& event) mutable {
        if (event.type() != UVAEvent::BackendResourceRequestAsync)
            return;
        if (++questions == 1)
            throw std::runtime_error("out of order");
        backend.eventCompleted(static_cast<UVAAsyncEvent*>(&event), true);
    };
    EXPECT_EQ(DecoderHandshake::decoder_request_cb(nullptr, "video", &backend.decoders()), 0);
    EXPECT_EQ(client.count(UVAEvent::DecodeError), 1);
    EXPECT_EQ(DecoderHandshake::decoder_request_cb(nullptr, "video", &backend.decoders()), 1)
        << "asked again";
}

// Once the client has granted it; a media source's sink at once.
TEST_F(BackendTest, ASinkIsToldWhenItsRequestGoesToTheMainSystem) {
    const auto sink = GstPtr<GstElement>::sink(gst_element_factory_make("halvideosink", nullptr));
    int told = 0;
    g_signal_connect_swapped(sink.get(), "decoder-request-forwarded",
                             G_CALLBACK(+[](int* count) { ++*count; }), &told);
    EXPECT_EQ(DecoderHandshake::source_decoder_request_cb(sink.get(), "video", &backend.decoders()),
              1);
    EXPECT_EQ(told, 1);
    EXPECT_EQ(client.types(), Types{}) << "nobody was asked";
    for (const bool granted : {false, true}) {
        client.clear();
        client.hook = [&](UVAEvent& event) {
            if (event.type() == UVAEvent::BackendResourceRequestAsync)
                backend.eventCompleted(static_cast<UVAAsyncEvent*>(&event), granted);
        };
        told = 0;
        EXPECT_EQ(DecoderHandshake::decoder_request_cb(sink.get(), "video", &backend.decoders()),
                  granted);
        EXPECT_EQ(told, granted);
        EXPECT_EQ(client.count(UVAEvent::DecodeError), !granted);
    }
}

TEST_F(BackendTest, ARefusedSinkIsNotAnsweredWithTheNextOnesGrant) {
    const BackendResourceRequestAsyncEvent answer(true);
    for (int round = 0; round < 200; ++round) {
        GstNoxBackend other(UVABackend::VideoElement, &client);
        client.clear();
        client.hook = [&, questions = 0](UVAEvent& event) mutable {
            if (event.type() == UVAEvent::BackendResourceRequestAsync && ++questions == 2)
                other.eventCompleted(&answer, true);
        };
        int first = -1;
        std::thread sink([&] {
            first = DecoderHandshake::decoder_request_cb(nullptr, "video", &other.decoders());
        });
        ASSERT_TRUE(isAskedForADecoder());
        other.eventCompleted(&answer, false);
        EXPECT_EQ(DecoderHandshake::decoder_request_cb(nullptr, "audio", &other.decoders()), 1);
        sink.join();
        ASSERT_EQ(first, 0) << "round " << round;
        EXPECT_EQ(client.count(UVAEvent::DecodeError), 1);
    }
}

TEST_F(BackendTest, StoppingEndsTheWaitForADecoder) {
    ASSERT_EQ(init(new TestSource("file://" TEST_MEDIA_DIR "/h264-aac.mp4")), 1);
    backend.play();
    ASSERT_TRUE(isAskedForADecoder());
    backend.releaseResources(UVABackend::AllResources);
    EXPECT_EQ(client.count(UVAEvent::DecodeError), 0); // nobody refused
}

// Nobody waits for the answer since the flush; the player that it was asked for is no more.
TEST_F(BackendTest, ALateRefusalIsNotForTheNextPlayer) {
    const auto sink = GstPtr<GstElement>::sink(gst_element_factory_make("halvideosink", nullptr));
    const auto pad = GstPtr<GstPad>::adopt(gst_element_get_static_pad(sink.get(), "sink"));
    gst_pad_set_active(pad.get(), TRUE);
    ASSERT_EQ(backend.gstPlaybinCreate(), 0);
    GstNoxPipeline::element_setup_cb(nullptr, sink.get(), &backend.pipeline());
    int answer = -1;
    std::thread asking([&] {
        answer = DecoderHandshake::decoder_request_cb(sink.get(), "video", &backend.decoders());
    });
    ASSERT_TRUE(isAskedForADecoder());
    gst_pad_send_event(pad.get(), gst_event_new_flush_start());
    asking.join();
    EXPECT_EQ(answer, 0);
    backend.gstPlayerStopAndDestroy();
    const BackendResourceRequestAsyncEvent late(false);
    backend.eventCompleted(&late, false);
    client.hook = [&](UVAEvent& event) {
        if (event.type() == UVAEvent::BackendResourceRequestAsync)
            backend.eventCompleted(static_cast<UVAAsyncEvent*>(&event), true);
    };
    EXPECT_EQ(DecoderHandshake::decoder_request_cb(nullptr, "video", &backend.decoders()), 1);
    EXPECT_EQ(client.count(UVAEvent::BackendResourceRequestAsync), 2);
    EXPECT_EQ(client.count(UVAEvent::DecodeError), 0);
}

// A log function waits for a thread that uses the backend.
TEST_F(BackendTest, LinesAreLoggedUnderNoLock) {
    struct Logger {
        std::vector<std::future<std::string>> uses;
        int lines = 0, free = 0;
    } logger;
    const GstLogFunction function = [](GstDebugCategory* category, GstDebugLevel, const gchar*,
                                       const gchar*, gint, GObject*, GstDebugMessage*,
                                       gpointer user) {
        if (category != gst_backend_debug)
            return;
        auto& [uses, lines, free] = *static_cast<Logger*>(user);
        ++lines;
        uses.push_back(std::async(std::launch::async, GstNoxBackend::describeAll));
        free += uses.back().wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    };
    gst_debug_category_set_threshold(gst_backend_debug, GST_LEVEL_DEBUG);
    gst_debug_add_log_function(function, &logger, nullptr);
    backend.changeState(GST_STATE_READY);
    backend.controlCommands("output-ddp:1");
    for (int i = 0; i < 2; ++i)
        backend.addComponent("audio", "audio_0");
    for (int i = 0; i < 2; ++i)
        backend.removeComponent("audio_0");
    gst_debug_remove_log_function(function);
    gst_debug_category_reset_threshold(gst_backend_debug);
    EXPECT_GT(logger.lines, 8);
    EXPECT_EQ(logger.free, logger.lines);
}

// The source that another takes the place of goes while that one is asking.
TEST_F(BackendTest, RemovingASourceLeavesOthersOfItsKindWaiting) {
    const auto sink = GstPtr<GstElement>::sink(gst_element_factory_make("halaudiosink", nullptr));
    ASSERT_EQ(backend.attachSource(new TestSource(3, "audio/x-plain")), UVABackend::Success);
    int answer = -1;
    std::thread asking([&] {
        answer = DecoderHandshake::decoder_request_cb(sink.get(), "audio", &backend.decoders());
    });
    ASSERT_TRUE(isAskedForADecoder());
    EXPECT_TRUE(backend.removeSource(3));
    const BackendResourceRequestAsyncEvent granted(true);
    backend.eventCompleted(&granted, true);
    asking.join();
    EXPECT_EQ(answer, 1);
}

} // namespace
