#include "element_fixture.h"

#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <tuple>
#include <utility>

// The destructors that the library behind the interface leaves to the backend.
BufferingProgressEvent::~BufferingProgressEvent() = default;
BufferingStreamBufferedEvent::~BufferingStreamBufferedEvent() = default;

namespace {

using support::SeekBehaviour;
using Outcome = SeekCompletedExEvent::SeekOutcome;

constexpr auto* look = "; is it intact and of a supported type? GST_DEBUG=2 puts GStreamer's "
                       "reasons into the system log";
constexpr auto* network = "; check the address, the network and the server";

class HostTest : public ElementTest {
protected:
    /// A new element in this state, on its way there only once.
    void bring(State state) {
        renew();
        if (state != State::Idle)
            m_element->open(m_uri);
        if (state != State::Idle && state != State::Opening)
            m_element->play();
        settle();
        if (m_recorder.status().state == State::Buffering && state != State::Buffering)
            moveTo(1);
        if (state == State::Paused)
            m_element->pause();
        if (state == State::Seeking) {
            m_fake->answers->seek = SeekBehaviour::NeverAnswer;
            m_element->seek(10);
        }
        settle();
        if (state == State::Ended)
            deliver(new PlaybackFinishedEvent(0, 0));
        if (state == State::Failed)
            deliver(new DecodeErrorEvent(DecodeErrorEvent::CorruptStream));
        ASSERT_EQ(m_recorder.status().state, state);
        m_recorder.story();
    }
    std::string reason() { return m_recorder.status().reason; }

    std::string m_uri = "file:///clip";
};

TEST_F(HostTest, DoesInEveryStateWhatIsAskedAndNoMore) {
    const std::pair<std::string, std::function<void()>> operations[] = {
        {"open", [&] { m_element->open("file:///other"); }},
        {"play", [&] { m_element->play(); }},
        {"pause", [&] { m_element->pause(); }},
        {"seek", [&] { seek(5); }},
        {"moves", [&] { moveTo(1.5); }},
        {"release", [&] { m_element->release(longBound); }},
        {"underrun", [&] { deliver(new BufferingStreamUnderrunEvent); }},
        {"buffered", [&] { deliver(new BufferingStreamBufferedEvent); }},
        {"end", [&] { deliver(new PlaybackFinishedEvent(0, 0)); }},
        {"error", [&] { deliver(new BufferingNetworkErrorEvent(1)); }},
    };
    const std::string sought = "-> seeking; setPosition(5)=1; "
                               "eventCompleted(CancelDataRequestsAsync, true)=1; "
                               "seek to 5 succeeded; -> ";
    const auto released = "UVA_ReleaseBackend()=true";
    // What is not here does nothing.
    const std::map<std::string, std::string> effects = {
        {"idle open", "UVA_RequestBackend(0)=true; -> opening; initBackend(file:///other)=1"},
        {"idle seek", "seek to 5 failed"},
        {"opening play", "play()=1; -> buffering"}, // the fake tells of an underrun
        {"opening pause", "pause()=1; -> paused"},
        {"opening underrun", "-> buffering"},
        {"opening end", "-> ended; end at 0"},
        {"opening error", "-> failed"},
        {"opening release", released},
        {"buffering play", "play()=1"},
        {"buffering pause", "pause()=1; -> paused"},
        {"buffering moves", "-> playing"},
        {"buffering buffered", "-> playing"},
        {"buffering end", "-> ended; end at 0"},
        {"buffering error", "-> failed"},
        {"buffering release", released},
        {"playing play", "play()=1; -> buffering"},
        {"playing pause", "pause()=1; -> paused"},
        {"playing seek", sought + "buffering"},
        {"playing underrun", "-> buffering"},
        {"playing end", "-> ended; end at 1"},
        {"playing error", "-> failed"},
        {"playing release", released},
        {"paused play", "play()=1; -> playing; -> buffering"},
        {"paused pause", "pause()=1"},
        {"paused seek", sought + "paused"},
        {"paused end", "-> ended; end at 1"},
        {"paused error", "-> failed"},
        {"paused release", released},
        {"seeking play", "play()=1"},
        {"seeking pause", "pause()=1"},
        {"seeking error", "-> failed; seek to 10 aborted"},
        {"seeking release", std::string("seek to 10 aborted; ") + released},
        {"ended play", "play()=1; -> seeking; setPosition(0)=1; "
                       "eventCompleted(CancelDataRequestsAsync, true)=1; -> buffering"},
        {"ended pause", "pause()=1"},
        {"ended seek", sought + "buffering"},
        {"ended release", released},
        {"failed seek", "seek to 5 failed"},
        {"failed release", released},
    };
    for (int i = 0; i <= static_cast<int>(State::Failed); ++i) {
        const auto state = static_cast<State>(i);
        for (const auto& [operation, act] : operations) {
            const auto what = host::name(state) + (" " + operation);
            bring(state);
            if (state == State::Idle && operation == "underrun")
                break; // there is no backend from which events could come
            act();
            settle();
            const auto found = effects.find(what);
            EXPECT_EQ(m_recorder.story(false), found == effects.end() ? "" : found->second) << what;
        }
    }
}

/// Each phase in which something is to move, and how it fails.
TEST_F(HostTest, GivesUpWhatDoesNotGetOn) {
    const auto decoder = [&] { deliver(new BackendResourceRequestAsyncEvent(false)); };
    const auto metadata = [&] { deliver(new NewMetadataEvent(0, 2, 1, 1.0)); };
    const auto tracks = [&] { deliver(new MultiComponentChangedEvent({}, {})); };
    const auto known = [&] { m_fake->answers->duration = 9; };
    const auto dry = [&] { deliver(new BufferingStreamUnderrunEvent); };
    const auto progress = [&] { deliver(new BufferingProgressEvent); };
    const auto sought = [&] { seek(7); };
    const auto pause = [&] {
        m_element->pause();
        settle();
    };
    const auto *file = "file:///x", *server = "http://h.example/x";
    const std::string media = "the media cannot be played",
                      unplayed = "nothing was played within 15.0 s";
    const struct {
        const char* what;
        const char* uri;
        State state;
        std::function<void()> prepare;
        int before; ///< milliseconds until the watch sees it
        int bound;  ///< 0: for ever
        std::string still;
        std::string error; ///< when there is one
        const char* next;
    } rows[] = {
        {"connecting", "http://h.example:8/x", State::Buffering, nullptr, 100, 10000,
         "no media came from h.example within 10.0 s", "nothing can be fetched from h.example",
         network},
        {"connected", server, State::Buffering, metadata, 100, 15000, unplayed, media, look},
        {"... tracks", server, State::Buffering, tracks, 100, 15000, unplayed, media, look},
        {"... a length", server, State::Buffering, known, 100, 15000, unplayed, media, look},
        {"opening in a pause", file, State::Opening, pause, 100, 15000, unplayed, media, look},
        {"opening", file, State::Buffering, nullptr, 100, 15000, unplayed, media, look},
        {"decoder asked for", file, State::Buffering, decoder, 4500, 15000, unplayed, media, look},
        {"playing", file, State::Playing, nullptr, 0, 5000,
         "stalled at 1.0 s: nothing moved for 5.0 s", "stopped at 1.0 s", look},
        {"playing from a server", server, State::Playing, nullptr, 0, 10000,
         "stalled at 1.0 s: no data came from h.example for 10.0 s",
         "stopped at 1.0 s: no more can be had from h.example", network},
        {"dry", file, State::Playing, dry, 100, 10000,
         "stalled at 1.0 s: no data came from the media's file for 10.0 s",
         "stopped at 1.0 s: no more can be had from the media's file", network},
        {"a seek", server, State::Seeking, nullptr, 100, 10000,
         "the seek to 10.0 s did not complete within 10.0 s", "the seek to 10.0 s failed", look},
        {"behind a seek", file, State::Playing, sought, 100, 10000,
         "the seek to 7.0 s did not complete within 10.0 s", "the seek to 7.0 s failed", look},
        {"paused", file, State::Paused, nullptr, 0, 0, "", "", ""},
        {"not played", file, State::Opening, nullptr, 0, 0, "", "", ""},
    };
    std::string error;
    m_options.takeError = [&] { return std::exchange(error, {}); };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        m_uri = row.uri;
        const auto start = [&](std::optional<milliseconds> bound) {
            m_options.noProgress = bound;
            bring(row.state);
            if (row.prepare)
                row.prepare();
        };
        const auto give = [&](std::optional<milliseconds> bound, std::string found) {
            start(bound);
            error = std::move(found);
            return passUntil(State::Failed).count();
        };
        if (row.bound == 0) {
            EXPECT_EQ(give({}, ""), 60000);
            EXPECT_EQ(give(milliseconds(300), "E"), 60000);
            continue;
        }
        const int seen = std::min(row.before, 100);
        EXPECT_EQ(give({}, ""), row.before + row.bound);
        EXPECT_EQ(reason(), row.still + row.next);
        EXPECT_EQ(give({}, "E"), seen + 500);
        EXPECT_EQ(reason(), row.error + " (GStreamer: E)" + row.next);
        EXPECT_EQ(give(milliseconds(300), ""), seen + 300);
        EXPECT_NE(reason().find(" 0.3 s"), std::string::npos) << reason();
        EXPECT_EQ(give(milliseconds(0), ""), 60000) << "told to wait for ever";
        // What comes, or moves, starts it anew; a process that was stopped has not watched.
        start({});
        pass(milliseconds(row.before + row.bound - 200));
        progress();
        *m_now += 60000;
        settle();
        EXPECT_EQ(passUntil(State::Failed).count(), row.bound - 200);
    }
}

/// Of the decoder, the network and the library: told at once.
TEST_F(HostTest, FailsWithTheReasonThatItIsGiven) {
    const auto refused = "decoder refused: the main system has none to give, or there is no link "
                         "to it (then the system log says why); end the player that has it, or "
                         "play without a main system (NOX_GST_STANDALONE=1)";
    const auto decoder = [this](int reason, int waited) {
        return [=] {
            deliver(new BackendResourceRequestAsyncEvent(false));
            pass(milliseconds(waited));
            deliver(new DecodeErrorEvent(reason));
        };
    };
    const auto fetching = [this] { deliver(new BufferingNetworkErrorEvent(1)); };
    std::string error;
    m_options.takeError = [&] { return std::exchange(error, {}); };
    using Policy = host::ResourcePolicy;
    const struct {
        const char* uri;
        std::function<void()> happen;
        std::string reason;
        Policy policy = Policy::Grant;
        const char* error = "";
    } rows[] = {
        {"file:///x", decoder(0, 0), "decode error: the format is unknown"},
        {"file:///x", decoder(1, 0), "decode error: the stream is corrupt"},
        {"file:///x", decoder(7, 0), "decode error 7"},
        {"file:///x", decoder(2, 4400), refused},
        {"file:///x", decoder(2, 4500),
         "the main system did not answer the request for the decoder within 4.5 s; start "
         "zant-mainsys, or play without a main system (NOX_GST_STANDALONE=1)"},
        {"file:///x", [&] { deliver(new DecodeErrorEvent(2)); }, refused},
        {"file:///x", decoder(2, 4500), "decoder refused: this host denies the decoders",
         Policy::Deny},
        {"http://h:1/", fetching, "the media cannot be fetched: h does not answer as it should"},
        {"file:///x", fetching,
         "the media cannot be fetched: the media's file does not answer as it should (GStreamer: "
         "404)",
         Policy::Grant, "404"},
    };
    for (const auto& row : rows) {
        m_uri = row.uri;
        m_options.resources = row.policy;
        bring(State::Buffering);
        error = row.error;
        row.happen();
        EXPECT_EQ(reason(), row.reason);
        EXPECT_EQ(m_recorder.status().state, State::Failed);
    }
}

TEST_F(HostTest, KeepsOneSeekUnderWayAndTheNewestWaiting) {
    bring(State::Seeking);
    seek(20);
    seek(30);
    EXPECT_EQ(m_recorder.story() + "; " + calls().back(), "seek to 20 replaced; cancelled");
    m_fake->answers->seek = SeekBehaviour::Complete;
    answerSeek(Outcome::Succeeded);
    EXPECT_EQ(m_recorder.story(),
              "!SeekCompletedEx(0); seek to 10 succeeded; setPosition(30)=1; "
              "!CancelDataRequestsAsync(30); eventCompleted(CancelDataRequestsAsync, true)=1; "
              "!SeekCompletedEx(0); seek to 30 succeeded; -> buffering");
    EXPECT_EQ(called("seek 20") + called("cancelled too early"), 0);
    answerSeek(Outcome::Succeeded);
    EXPECT_EQ(m_recorder.story(), "!SeekCompletedEx(0)") << "nobody waits for it";
    moveTo(30.5);
    EXPECT_EQ(m_recorder.story(), "-> playing");
}

TEST_F(HostTest, AnswersASeekWithWhatBecameOfIt) {
    const struct {
        State from;
        Outcome outcome;
        const char* story;
    } rows[] = {
        {State::Playing, Outcome::Failed, "seek to 7 failed; -> buffering"},
        {State::Playing, Outcome::Aborted, "seek to 7 aborted; -> buffering"},
        {State::Paused, Outcome::Failed, "seek to 7 failed; -> paused"},
        {State::Ended, Outcome::Failed, "seek to 7 failed; -> ended"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.story);
        bring(row.from);
        m_fake->answers->seek = SeekBehaviour::NeverAnswer;
        seek(7);
        m_recorder.story();
        answerSeek(row.outcome);
        const auto story = m_recorder.story();
        EXPECT_EQ(story.substr(story.find(';') + 2), row.story);
    }
    // Before something was played it waits; what cannot be sought to at all is told at once.
    bring(State::Buffering);
    m_element->seek(10);
    seek(std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(m_recorder.story(), "seek to nan failed");
    moveTo(0.1);
    EXPECT_EQ(called("seek 10"), 1);
    bring(State::Buffering);
    m_element->seek(10);
    deliver(new PlaybackFinishedEvent(0, 0));
    EXPECT_EQ(called("seek 10"), 1) << "an end was reached";
    m_fake->answers->seek = SeekBehaviour::NeverAnswer;
    m_element->seek(10);
    seek(20);
    answerSeek(Outcome::Succeeded);
    EXPECT_EQ(called("seek 20"), 1) << "nothing was played between";
    bring(State::Playing);
    m_fake->answers->seek = SeekBehaviour::Refuse;
    seek(7);
    EXPECT_EQ(m_recorder.story(),
              "-> seeking; setPosition(7)=0; !SeekCompletedEx(2); seek to 7 failed; -> buffering");
    bring(State::Seeking);
    seek(9);
    m_element->release(longBound);
    EXPECT_EQ(m_recorder.story(),
              "seek to 10 aborted; seek to 9 aborted; UVA_ReleaseBackend()=true");
}

/// As those of a page's media element.
TEST_F(HostTest, SeeksLeadIntoTheMedia) {
    const auto infinity = std::numeric_limits<double>::infinity();
    bring(State::Playing);
    seek(1e300);
    EXPECT_EQ(called("seek 1e+300"), 1) << "nobody knows how long it is";
    for (const auto& [target, place] :
         std::map<double, double>{{-5, 0}, {99.9, 99.9}, {100, 100}, {99999, 100}, {1e300, 100}}) {
        bring(State::Paused);
        deliver(new NewMetadataEvent(100, 2, 1, 1.0));
        pass(m_options.tick);
        m_fake->position = place;
        m_element->seek(target);
        EXPECT_EQ(m_element->position(), place) << target;
        settle();
        EXPECT_EQ(m_element->position(), place) << target;
        EXPECT_EQ(m_recorder.status().position, place) << target;
        std::ostringstream call, told;
        call << "seek " << place;
        told << "seek to " << target << " succeeded";
        EXPECT_EQ(called(call.str()), 1) << target;
        EXPECT_NE(m_recorder.story().find(told.str()), std::string::npos) << target;
        for (const double none : {infinity, -infinity, std::nan("")})
            seek(none);
        EXPECT_EQ(m_recorder.story(),
                  "seek to inf failed; seek to -inf failed; seek to nan failed");
        EXPECT_EQ(m_element->position(), place) << target;
    }
    // There nothing plays any more.
    m_element->play();
    deliver(new PlaybackFinishedEvent(0, 0));
    EXPECT_EQ(passUntil(State::Ended).count(), 400);
    EXPECT_EQ(m_recorder.story(false), "play()=1; -> buffering; -> ended; end at 100");
}

/// An end and a seek, in every order. The media is 100 s long, if that is known.
TEST_F(HostTest, TellsTheEndBehindASeekFromTheOneBeforeIt) {
    const auto end = [&] { deliver(new PlaybackFinishedEvent(0, 0)); };
    const auto completed = [&] { answerSeek(Outcome::Succeeded); };
    const auto at = [&](double position) { return [&, position] { m_fake->position = position; }; };
    const auto stands = [&] { pass(seconds(1)); }; // longer than an end is doubted
    const auto moves = [&] {
        for (int i = 0; i < 20; ++i)
            moveTo(m_fake->position + 0.1);
    };
    using Steps = std::vector<std::function<void()>>;
    const struct {
        const char* what;
        double duration; ///< 0: unknown
        double target;
        Steps steps; ///< once the seek has begun
        int ends;    ///< milliseconds later; negative: never
    } rows[] = {
        {"where the media ends", 100, 100, {at(100), completed, end}, 400},
        {"... to within a picture", 100, 99.75, {at(99.75), completed, end}, 400},
        {"... no nearer", 100, 99.74, {at(99.74), completed, end}, 10100},
        {"there, before the seek's answer", 100, 100, {at(100), end, completed}, 400},
        {"beyond, length unknown", 0, 150, {completed, at(100), end}, 300},
        {"shortly behind the target", 0, 99.5, {completed, at(99.6), stands, at(100), end}, 300},
        {"there, at once", 0, 99.5, {completed, at(100), end}, 300},
        {"in front of the target", 0, 99.5, {completed, at(99.2), end}, 300},
        {"at the target", 0, 99.5, {completed, at(99.25), end}, 5000},
        {"... before the answer", 0, 99.5, {end, at(100), completed}, 400},
        {"an old one, before the answer", 100, 50, {end, at(50), completed, stands, moves}, -1},
        {"an old one, behind the answer", 100, 50, {at(50), completed, end, stands, moves}, -1},
        {"an old one, late", 0, 50, {at(50), completed, moves, end, moves}, -1},
        {"an old one, next to the end", 100, 97.9, {at(97.9), completed, end, moves}, -1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        bring(State::Playing);
        deliver(new NewMetadataEvent(row.duration, 2, 1, 1.0));
        m_fake->answers->seek = SeekBehaviour::NeverAnswer;
        seek(row.target);
        for (const auto& step : row.steps)
            step();
        if (row.ends < 0) {
            EXPECT_EQ(m_recorder.status().state, State::Playing);
            end();
        }
        EXPECT_EQ(passUntil(State::Ended, seconds(11)).count(), row.ends < 0 ? 200 : row.ends)
            << reason();
    }
}

TEST_F(HostTest, EndsOrTellsWhyThatIsNone) {
    for (const double duration : {0.25, 0.5}) {
        bring(State::Buffering);
        m_fake->answers->duration = duration;
        deliver(new PlaybackFinishedEvent(0, 0));
        EXPECT_EQ(reason(), duration > 0.25
                                ? "the media ended before anything was played of its 0.5 s; it "
                                  "seems to be cut off: get it anew"
                                : "");
    }
    std::string error;
    m_options.takeError = [&] { return std::exchange(error, {}); };
    bring(State::Playing);
    error = "E";
    deliver(new PlaybackFinishedEvent(0, 0));
    EXPECT_EQ(reason(), std::string("stopped at 1.0 s (GStreamer: E)") + look);
    error = "of what was played before";
    bring(State::Playing);
    deliver(new PlaybackFinishedEvent(0, 0));
    EXPECT_EQ(m_recorder.status().state, State::Ended);
    // A seek asks for it anew: what was wrong before it may not be wrong there.
    bring(State::Playing);
    error = "E";
    seek(3);
    moveTo(3);
    EXPECT_EQ(passUntil(State::Failed).count(), 4900) << "of the tick it is known since when";
    EXPECT_EQ(reason().substr(0, 16), "stalled at 3.0 s");
}

TEST_F(HostTest, TellsWhatIsKnownOfTheMedia) {
    using Component = UVABackend::AVComponent;
    bring(State::Buffering);
    auto* audio = new Component(Component::Audio, "aac", "deu", "main");
    Component video(Component::Video, "h264", "und", "");
    deliver(new MultiComponentChangedEvent({}, {audio, nullptr, &video}));
    ASSERT_EQ(m_recorder.status().components.size(), 2U);
    EXPECT_EQ(m_recorder.status().components[0].language, "deu");
    EXPECT_EQ(m_recorder.status().components[0].label, "main");
    deliver(new MultiComponentChangedEvent({audio}, {})); // deletes it
    ASSERT_EQ(m_recorder.status().components.size(), 1U);
    EXPECT_EQ(m_recorder.status().components[0].encoding, "h264");
    EXPECT_EQ(m_recorder.status().components[0].type, Component::Video);

    deliver(new NewMetadataEvent(7.5, 640, 360, 1.25));
    deliver(new NewMetadataEvent(0, 320, 200, 1.5)); // its length is not known any more
    m_fake->answers->duration = 9;
    moveTo(0.5);
    const auto status = m_recorder.status();
    EXPECT_EQ(std::tie(status.duration, status.width, status.height, status.pixelAspectRatio),
              std::make_tuple(7.5, 320, 200, 1.5));
    EXPECT_EQ(status.position, 0.5);
    EXPECT_EQ(status.time, m_loop->now());
    const int told = m_recorder.statuses();
    pass(seconds(1));
    EXPECT_EQ(m_recorder.statuses(), told) << "nothing has changed";

    bring(State::Opening);
    m_fake->answers->duration = 9;
    pass(milliseconds(100));
    EXPECT_EQ(m_recorder.status().duration, 9);
    EXPECT_EQ(passUntil(State::Failed, seconds(1)), seconds(1));
}

TEST_F(HostTest, CapturesWhatIsOnScreen) {
    const struct {
        int height, started, fetched;
        const char* error;
    } rows[] = {
        {3, UVABackend::Success, UVABackend::Success, ""},
        {0, UVABackend::Success, UVABackend::Success, "the media has shown no picture"},
        {3, UVABackend::Failure, UVABackend::Success,
         "the backend cannot capture pictures of this size"},
        {3, UVABackend::Success, UVABackend::NotAvailable, "no picture is on screen"},
        {3, UVABackend::Success, UVABackend::Failure,
         "the backend gave no picture (getVideoFrame answered 2)"},
    };
    for (const auto& row : rows) {
        bring(State::Playing);
        m_fake->answers->height = row.height;
        m_fake->answers->startCapture = row.started;
        m_fake->answers->frame = row.fetched;
        const auto capture = m_element->capture().get();
        EXPECT_EQ(capture.error, row.error);
        std::string error;
        if (*row.error == '\0') {
            EXPECT_EQ(capture.picture.rgba, std::vector<unsigned char>(24, 255));
            EXPECT_EQ(host::encodePng(capture.picture, error).substr(1, 3), "PNG") << error;
            EXPECT_EQ(m_recorder.story(), "getNativeSize()=1; startCapture(2, 3)=1; "
                                          "getVideoFrame()=1; stopCapture()=1");
        }
    }
    std::string error;
    for (const auto& [width, height, size] :
         {std::tuple(0, 3, 0U), {2, 0, 0U}, {2, 3, 23U}, {2, 3, 25U}, {-2, -3, 24U}}) {
        EXPECT_EQ(host::encodePng({width, height, std::vector<unsigned char>(size)}, error), "");
        EXPECT_EQ(std::exchange(error, {}), "the picture's size and its bytes do not agree");
    }
    m_recorder.story();
    m_element->setWindow({-8, 4, 640, 360});
    settle();
    EXPECT_EQ(m_recorder.story().substr(0, 35), "setLogicalScreenSize(1280, 720)=1; ");
    EXPECT_EQ(calls().back(), "window -8 4 640 360 0 0 1280 720");
    bring(State::Idle);
    EXPECT_EQ(m_element->capture().get().error, "nothing is open");
    m_element->setWindow({});
    settle();
    EXPECT_EQ(m_recorder.story(), "");
}

TEST_F(HostTest, AnswersADecoderRequestWithinItsDelivery) {
    for (const bool granted : {true, false}) {
        m_options.resources = granted ? host::ResourcePolicy::Grant : host::ResourcePolicy::Deny;
        bring(State::Playing);
        m_fake->client.load()->deliverEvent(new BackendResourceRequestAsyncEvent(true));
        EXPECT_EQ(calls().back(), granted ? "granted" : "denied");
        settle();
        EXPECT_EQ(m_recorder.story(), std::string("!BackendResourceRequestAsync(true); "
                                                  "eventCompleted(BackendResourceRequestAsync, ") +
                                          (granted ? "true)=1" : "false)=1"));
        renew();
        m_fake->answers->asksEarly = true;
        m_element->open(m_uri);
        settle();
        EXPECT_EQ(calls().back(), granted ? "granted" : "denied");
    }
    for (const bool refused : {true, false}) {
        renew();
        (refused ? m_fake->answers->refuseMedia : m_fake->answers->giveNothing) = true;
        m_element->open(m_uri);
        settle();
        EXPECT_EQ(reason(),
                  refused ? "the backend did not take the media (initBackend answered 2); see the "
                            "system log"
                          : "the library gave no backend; its own message on standard output says "
                            "why");
    }
}

TEST_F(HostTest, IsSilentOnceReleasedWhateverIsInFlight) {
    bring(State::Playing);
    std::atomic<bool> stop{false};
    std::thread flood([&, client = m_fake->client.load()] {
        while (!stop)
            client->deliverEvent(new VideoFrameAvailableEvent(1));
    });
    ASSERT_TRUE(waitUntil([&] { return !m_recorder.story().empty(); }));
    EXPECT_TRUE(m_element->release(longBound));
    m_recorder.story();
    stop = true;
    flood.join();
    m_loop->stop(longBound);
    EXPECT_EQ(m_recorder.story(), "");
    EXPECT_EQ(m_fake->living, 0);
    EXPECT_EQ(m_element->capture().get().error, "the event loop has ended");
}

TEST_F(HostTest, LeavesAHangingBackendBehind) {
    bring(State::Playing);
    m_fake->answers->seek = SeekBehaviour::Block;
    m_element->seek(10);
    ASSERT_TRUE(waitUntil([&] { return called("seek 10") == 1; }));
    ASSERT_TRUE(m_element->operationUnderWay().has_value());
    EXPECT_EQ(m_element->operationUnderWay()->name, "setPosition");
    EXPECT_EQ(m_element->operationUnderWay()->since, m_loop->now());
    EXPECT_FALSE(m_element->release(milliseconds(50)));
    m_recorder.story();
    m_element.reset();
    m_fake->answers->unblock = true;
    EXPECT_TRUE(waitUntil([&] { return m_fake->living == 0; })); // the late release
    EXPECT_TRUE(m_loop->stop(longBound));
    EXPECT_EQ(m_recorder.story(), "");
}

TEST_F(HostTest, RunsTimersAndTasksInTheirOrder) {
    std::string ran; // on the loop
    const auto first = m_loop->startTimer(milliseconds(200), [&] { ran += "A"; });
    m_loop->startTimer(milliseconds(300), [&] {
        ran += "B";
        m_loop->cancelTimer(first);
    });
    const auto at = [&](int time) {
        *m_now += time;
        m_loop->post([&] { ran += "t"; });
        m_loop->post([&] { ran += "u"; });
        settle();
        return std::exchange(ran, {});
    };
    EXPECT_EQ(at(199), "tu");
    EXPECT_EQ(at(1), "Atu");
    EXPECT_EQ(at(1000), "ABtu") << "late runs are not made up for";
    EXPECT_EQ(at(299), "tu") << "one is cancelled";
    EXPECT_EQ(at(1), "Btu");
    m_loop->cancelTimer(first);
    // What a task holds may post as it goes.
    m_loop->post([held = std::shared_ptr<void>(
                      nullptr, [&](void*) { m_loop->post([&] { ran += "!"; }); })] {});
    settle();
    EXPECT_EQ(ran, "!");
}

TEST(EventLoop, LeavesAHangingTaskBehindAndTakesNoMore) {
    std::promise<void> begun, go, done;
    host::EventLoop loop;
    loop.post([&, wait = go.get_future().share()] {
        begun.set_value();
        wait.wait();
        done.set_value_at_thread_exit();
    });
    begun.get_future().wait();
    std::atomic<bool> ran{false};
    loop.post([&] { ran = true; });
    EXPECT_FALSE(loop.stop(milliseconds(20)));
    EXPECT_FALSE(loop.post([&] { ran = true; }));
    go.set_value();
    done.get_future().wait();
    EXPECT_FALSE(ran);
}

} // namespace
