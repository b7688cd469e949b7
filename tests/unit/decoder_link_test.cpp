#include "decoder_link_fixture.h"
#include "support/wait_until.h"

#include <future>
#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using Sent = RecordingLowerLayer::Sent;
using support::waitUntil;

constexpr auto needed = SIG_ID_MPLAYER_DECODER_NEEDED_IND;
constexpr auto available = SIG_ID_MPLAYER_DECODER_AVAILABLE_IND;
constexpr auto notAvailable = SIG_ID_MPLAYER_DECODER_NOT_AVAILABLE_IND;
constexpr auto releaseRequest = SIG_ID_MPLAYER_DECODER_RELEASE_REQ;
constexpr auto releaseResponse = SIG_ID_MPLAYER_DECODER_RELEASE_RESP;

class DecoderLinkTest : public ::testing::Test, protected DecoderLink {
protected:
    /// A request on a thread of its own, once it waits.
    std::future<bool> asks(const char* type, UvaGstIfRequester* requester = nullptr) {
        const int before = receiver.state().waiting;
        auto answer = std::async(std::launch::async, [this, type, requester] {
            return requester ? receiver.requestDecoder(type, requester)
                             : CUvaGstIfReceiver::decoder_request_cb(nullptr, type, &receiver) == 1;
        });
        EXPECT_TRUE(waitUntil([&] { return receiver.state().waiting > before; }));
        return answer;
    }
    void use(const char* type, UvaGstIfRequester* requester = nullptr) {
        arrives(available, std::string(type) == "audio" ? 1 : 2);
        EXPECT_TRUE(receiver.requestDecoder(type, requester));
        lowerLayer.take();
    }
    static Sent indication(uint32_t signal, int32_t param1) { return {signal, param1, {0, 0}, {}}; }
    std::vector<Sent> sent() { return lowerLayer.take(); }
    using Sends = std::vector<Sent>;
};

TEST_F(DecoderLinkTest, AGrantIsAskedForOnceAndStays) {
    auto video = asks("video");
    EXPECT_EQ(sent(), Sends{indication(needed, 2)});
    arrives(available, 1);
    EXPECT_EQ(video.wait_for(20ms), std::future_status::timeout) << "that was the other kind";
    arrives(available, 2);
    EXPECT_TRUE(video.get());
    EXPECT_TRUE(receiver.requestDecoder("audio", nullptr)) << "nobody had asked; it is kept";
    EXPECT_TRUE(receiver.requestDecoder("video", nullptr));
    EXPECT_EQ(sent(), Sends{});
    EXPECT_EQ(receiver.state().used, 3u);
}

TEST_F(DecoderLinkTest, OtherTypesAreRefusedSilently) {
    for (const char* const type : {"", "-audio", "Video", "text"})
        EXPECT_FALSE(receiver.requestDecoder(type, nullptr));
    EXPECT_FALSE(receiver.requestDecoder(nullptr, nullptr));
    EXPECT_EQ(CUvaGstIfReceiver::decoder_request_cb(nullptr, "video", nullptr), 0);
    EXPECT_EQ(sent(), Sends{});
}

TEST_F(DecoderLinkTest, ARefusalEndsAllWaits) {
    auto audio = asks("audio");
    auto video = asks("video");
    arrives(notAvailable);
    EXPECT_FALSE(audio.get());
    EXPECT_FALSE(video.get());
    EXPECT_FALSE(receiver.state().requestPending);
    auto again = asks("audio");
    arrives(available, 1);
    EXPECT_TRUE(again.get());
}

TEST_F(DecoderLinkTest, WithoutAnAnswerItTakesFiveSeconds) {
    auto answer = asks("video");
    clock.advance(4999ms);
    EXPECT_EQ(answer.wait_for(20ms), std::future_status::timeout);
    clock.advance(1ms);
    EXPECT_FALSE(answer.get());
    EXPECT_TRUE(receiver.state().requestPending);
    arrives(available, 2);
    EXPECT_TRUE(receiver.requestDecoder("video", nullptr)) << "the late grant counts";
    EXPECT_EQ(sent(), Sends{indication(needed, 2)});
}

TEST_F(DecoderLinkTest, TearDownEndsTheWaitsOfItsRequesterOnly) {
    UvaGstIfRequester going;
    UvaGstIfRequester staying;
    auto mine = asks("video", &going);
    auto other = asks("audio", &staying);
    receiver.breakWaits(going);
    EXPECT_FALSE(mine.get());
    EXPECT_FALSE(receiver.requestDecoder("video", &going)) << "no new wait begins";
    EXPECT_EQ(other.wait_for(20ms), std::future_status::timeout);
    arrives(available, 3);
    EXPECT_TRUE(other.get());
    EXPECT_FALSE(receiver.requestDecoder("video", &going));
    receiver.allowWaits(going);
    EXPECT_TRUE(receiver.requestDecoder("video", &going));
}

TEST_F(DecoderLinkTest, TermEndsEveryWait) {
    ASSERT_EQ(receiver.Init(), 0);
    ASSERT_EQ(receiver.StartThread("uvagst_if_receiver", 0, 0), 0);
    auto answer = asks("video");
    receiver.Term();
    EXPECT_FALSE(answer.get());
    EXPECT_FALSE(receiver.requestDecoder("audio", nullptr));
    CThreadObject::Start();
    CZantMsgQueue::Start();
}

TEST_F(DecoderLinkTest, AKindIsInUseUntilTheLastRequesterGivesItBack) {
    UvaGstIfRequester first;
    UvaGstIfRequester second;
    UvaGstIfRequester none;
    auto both = asks("video", &first);
    auto too = asks("video", &second);
    arrives(available, 2);
    EXPECT_TRUE(both.get());
    EXPECT_TRUE(too.get()) << "one grant serves whoever asks";
    EXPECT_TRUE(receiver.requestDecoder("video", nullptr)) << "at once";
    EXPECT_EQ(sent(), (Sends{indication(needed, 2), indication(needed, 2)}));

    arrives(releaseRequest, 2);
    for (const UvaGstIfRequester* const requester : {&first, &first, &none}) {
        noLongerNeeded("-video", requester);
        EXPECT_EQ(receiver.state().used, 2u) << "the other two have it";
    }
    receiver.leave(first);
    receiver.leave(second);
    EXPECT_EQ(receiver.state().used, 2u);
    EXPECT_EQ(sent(), Sends{});
    noLongerNeeded("-video");
    EXPECT_EQ(receiver.state().used, 0u);
    EXPECT_EQ(sent(), Sends{indication(releaseResponse, 2)});
}

/// The clock stands still: whoever waited would do so for ever.
TEST_F(DecoderLinkTest, ARequestThatCannotBeSentIsRefusedAtOnce) {
    const auto isRefusedAtOnce = [this] {
        auto answer = std::async(std::launch::async,
                                 [this] { return receiver.requestDecoder("video", nullptr); });
        const bool atOnce = answer.wait_for(20s) == std::future_status::ready;
        arrives(notAvailable);
        return !answer.get() && atOnce;
    };
    lowerLayer.result = CZantMsgQueue::sendFailed;
    EXPECT_TRUE(isRefusedAtOnce());
    EXPECT_FALSE(receiver.state().requestPending);
    lowerLayer.result = 0;
    auto waits = asks("video");
    receiver.cutOff();
    EXPECT_FALSE(waits.get());
    sent();
    EXPECT_TRUE(isRefusedAtOnce());
    EXPECT_EQ(sent(), Sends{}) << "nobody is asked";
}

/// What is in use, what is asked back; what is answered at once and what when it was given back.
TEST_F(DecoderLinkTest, ReleaseRequestsAreAnsweredOnce) {
    const struct {
        bool audio, video;
        int32_t kinds;
        bool atOnce;
        const char* givenBack; ///< after which the answer comes
        uint32_t left;         ///< available afterwards
    } rows[] = {
        {false, false, 1, true, nullptr, 2},  {false, false, 3, true, nullptr, 0},
        {true, false, 2, true, nullptr, 1},   {true, false, 3, false, "-audio", 0},
        {false, true, 2, false, "-video", 1}, {true, true, 1, false, "-audio", 2},
        {false, false, -1, true, nullptr, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.kinds) + (row.givenBack ? row.givenBack : ""));
        DecoderLink link;
        link.arrives(available, 3);
        if (row.audio)
            link.receiver.requestDecoder("audio", nullptr);
        if (row.video)
            link.receiver.requestDecoder("video", nullptr);
        link.arrives(releaseRequest, row.kinds, 77);
        const Sends response{{releaseResponse, row.kinds, {77, -77}, {}}};
        EXPECT_EQ(link.lowerLayer.take(), row.atOnce ? response : Sends{});
        EXPECT_EQ(link.media.lines(),
                  row.atOnce ? "" : "1 ***E: how to suspend Mediaplayer pipeline here?\n");
        link.noLongerNeeded("-other");
        EXPECT_EQ(link.lowerLayer.take(), Sends{});
        if (row.givenBack) {
            link.noLongerNeeded(row.givenBack);
            EXPECT_EQ(link.lowerLayer.take(), Sends{indication(releaseResponse, row.kinds)});
        }
        EXPECT_EQ(link.receiver.state().available, row.left);
        EXPECT_EQ(link.receiver.state().releaseRequest, 0u);
    }
}

TEST_F(DecoderLinkTest, ReleaseRequestsDoNotDisplaceOneAnother) {
    use("audio");
    arrives(available, 2);
    arrives(releaseRequest, 1, 5);
    arrives(releaseRequest, 0, 6);
    EXPECT_EQ(sent(), Sends{});
    arrives(releaseRequest, 2, 7);
    EXPECT_EQ(sent(), (Sends{{releaseResponse, 2, {7, -7}, {}}}));
    EXPECT_EQ(receiver.state().releaseRequest, 1u);
    noLongerNeeded("-audio");
    EXPECT_EQ(sent(), Sends{indication(releaseResponse, 1)});
}

TEST_F(DecoderLinkTest, EachReleaseRequestHasAnAnswerOfItsOwn) {
    use("audio");
    use("video");
    for (const int32_t kinds : {3, 1, 2, 1})
        arrives(releaseRequest, kinds, 5);
    EXPECT_EQ(receiver.state().releaseRequest, 3u);
    EXPECT_EQ(sent(), Sends{});
    noLongerNeeded("-audio");
    EXPECT_EQ(sent(), (Sends{indication(releaseResponse, 1), indication(releaseResponse, 1)}));
    EXPECT_EQ(receiver.state().releaseRequest, 3u);
    EXPECT_EQ(receiver.state().available, 2u);
    noLongerNeeded("-video");
    EXPECT_EQ(sent(), (Sends{indication(releaseResponse, 3), indication(releaseResponse, 2)}));
    EXPECT_EQ(receiver.state().releaseRequest, 0u);
}

TEST_F(DecoderLinkTest, WaitingBeforeTearDownGivesBackWhatIsLeft) {
    receiver.waitForDecoderAvailable(nullptr, "nothing in use");
    use("video");
    use("audio");
    arrives(releaseRequest, 3);
    auto wait = std::async(std::launch::async,
                           [this] { receiver.waitForDecoderAvailable(nullptr, "test"); });
    noLongerNeeded("-audio");
    EXPECT_EQ(wait.wait_for(20ms), std::future_status::timeout);
    EXPECT_EQ(sent(), Sends{});
    ASSERT_TRUE(waitUntil([&] {
        clock.advance(100ms);
        return wait.wait_for(0ms) == std::future_status::ready;
    }));
    EXPECT_EQ(sent(), Sends{indication(releaseResponse, 3)});
    EXPECT_EQ(receiver.state().available, 0u);
}

TEST_F(DecoderLinkTest, ReportsAreByteExact) {
    FakeMessage video{"GstNoxVideoFormat",
                      {{"width", 1920}, {"height", 1088}, {"disp-width", 65536 + 720}},
                      {{"display-aspect-ratio", {16, 9}}, {"frame-rate", {30000, 1001}}},
                      {}};
    receiver.handleApplicationMessage(video.get());
    const unsigned char record[22] = {0xde, 0xad, 0xbe, 0xaf, 0xff, 0,   0x07, 0x80,
                                      0x04, 0x40, 0x02, 0xd0, 0,    0,   0,    16,
                                      0,    9,    0x75, 0x30, 0x03, 0xe9};
    EXPECT_EQ(sent(), (Sends{{490, 0, {0, 0}, {reinterpret_cast<const char*>(record), 22}}}));

    FakeMessage audio{"GstNoxAudioFormat", {}, {}, {{"codec", "AC-3"}}};
    receiver.handleApplicationMessage(audio.get());
    const std::string text = "<media><audio codec=\"AC-3\" lang=\"und\" /></media>";
    EXPECT_EQ(sent(), (Sends{{489, 0, {0, 0}, text + '\0'}}));

    FakeMessage nothing[] = {{"GstNoxAudioFormat", {}, {}, {}},
                             {"GstNoxDecoderNeeded", {}, {}, {}},
                             {"SomethingElse", {}, {}, {{"type", "-video"}}}};
    for (FakeMessage& message : nothing)
        receiver.handleApplicationMessage(message.get());
    receiver.handleApplicationMessage(nullptr);
    EXPECT_EQ(sent(), Sends{});
}

TEST_F(DecoderLinkTest, PayloadsOfNoSizeAreNotSent) {
    const unsigned char byte = 1;
    lowerLayer.sendIndicationBuffer(SIG_ID_MPLAYER_SET_WINDOW_REQ, &byte, -1);
    lowerLayer.sendIndicationBuffer(SIG_ID_MPLAYER_SET_WINDOW_REQ, nullptr, 8);
    EXPECT_EQ(sent(), Sends{});
    EXPECT_EQ(media.lines(), "1 no payload of -1 bytes for SIG_ID_MPLAYER_SET_WINDOW_REQ\n"
                             "1 no payload of 8 bytes for SIG_ID_MPLAYER_SET_WINDOW_REQ\n");
    lowerLayer.sendIndicationBuffer(SIG_ID_MPLAYER_SET_WINDOW_REQ, &byte, 0);
    EXPECT_EQ(sent(), Sends{indication(513, 0)});
}

TEST_F(DecoderLinkTest, ControlTextsReachTheConnectedBackend) {
    struct Backend final : UvaGstIfBackend {
        void controlCommands(const char* commands) override {
            heard += std::string(commands) + ";";
        }
        std::string heard;
    } backend;
    const auto control = [this](const char* text) {
        arrives(SIG_ID_MPLAYER_CONTROL_REQ, 0, 0, text);
    };
    control("lost");
    receiver.connectBackend(&backend);
    control("output-ddp:1");
    control("");
    for (const int32_t size : {-1, 0, 5, INT32_MAX})
        arrives(SIG_ID_MPLAYER_CONTROL_REQ, 0, 0, nullptr, size);
    receiver.connectBackend(nullptr);
    control("lost");
    EXPECT_EQ(backend.heard, "output-ddp:1;;");
}

TEST_F(DecoderLinkTest, UnknownSignalsAreLoggedAndDropped) {
    arrives(SIG_ID_TEST_RPC, 3, 0, "payload");
    arrives(static_cast<SignalIds>(70000));
    EXPECT_EQ(media.lines(), "2 unhandled message: SIG_ID_TEST_RPC (32) l=7\n"
                             "2 unhandled message: SIG_ID_NULL (70000) l=0\n");
    EXPECT_EQ(receiver.state().available, 0u);
}

} // namespace
