#include "decoder_link_fixture.h"

#include <fcntl.h>
#include <future>
#include <sstream>
#include <stdexcept>

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using support::waitUntil;

constexpr auto available = SIG_ID_MPLAYER_DECODER_AVAILABLE_IND;
constexpr auto notAvailable = SIG_ID_MPLAYER_DECODER_NOT_AVAILABLE_IND;
constexpr auto releaseRequest = SIG_ID_MPLAYER_DECODER_RELEASE_REQ;
constexpr auto control = SIG_ID_MPLAYER_CONTROL_REQ;

struct Requester {
    std::atomic<bool> isInterrupted{false};
};

class DecoderLinkTest : public ::testing::Test, protected DecoderLink {
protected:
    /// A request on a thread of its own, once it sleeps, and those again whom it woke.
    std::future<bool> asks(const char* type, Requester* requester = nullptr) {
        const int before = clock.sleeps() + (clock.wakesLate() ? 0 : receiver.state().waiting);
        auto answer = std::async(std::launch::async, [this, type, requester] {
            return requester
                       ? receiver.requestDecoder(*mediaKindOf(type), requester,
                                                 [&] { return requester->isInterrupted.load(); })
                       : CUvaGstIfReceiver::decoder_request_cb(nullptr, type, &receiver) == 1;
        });
        EXPECT_TRUE(waitUntil([&] { return clock.sleeps() == before + 1; }));
        receiver.state(); // who has the lock now comes after the sleeper
        return answer;
    }
    /// What happens wakes every sleeper, and these find that it does not end their sleep.
    void wakesInVain(const std::function<void()>& happens, int sleepers = 1) {
        const int before = clock.sleeps();
        happens();
        EXPECT_TRUE(waitUntil([&] { return clock.sleeps() == before + sleepers; }));
    }
    void expectState(uint32_t asked, uint32_t used, uint32_t granted, bool pending, int waiting) {
        const auto now = receiver.state();
        EXPECT_EQ(now.releaseRequest, asked);
        EXPECT_EQ(now.used, used);
        EXPECT_EQ(now.available, granted);
        EXPECT_EQ(now.requestPending, pending);
        EXPECT_EQ(now.waiting, waiting);
    }
    void interrupt(Requester& requester) {
        requester.isInterrupted = true;
        receiver.wake();
    }
    std::string sent() { return lowerLayer.take(); }
};

/// One link that does what short words say, and tells all that holds afterwards.
class Story : private DecoderLink {
public:
    /// "+3" grants kinds, "-" refuses, "?3" asks back; "A1" is a request of the requester for
    /// audio, "a1" what it uses no longer, "o1" other words of it, "L1" its leaving; "B1" and "W1"
    /// interrupt it and let it go on; "x" cuts off.
    std::string after(const std::string& words) {
        std::istringstream stream(words);
        std::string result;
        for (std::string word; stream >> word;)
            result += act(word);
        result += lowerLayer.take();
        if (!media.lines().empty())
            result += "error ";
        const auto now = receiver.state();
        return result + std::to_string(now.releaseRequest) + std::to_string(now.used) +
               std::to_string(now.available) + (now.requestPending ? " pending" : "");
    }

private:
    std::string act(const std::string& word) {
        const char verb = word.front();
        const auto number = static_cast<size_t>(word.back() - '0');
        Requester* const who = m_requesters[number < 3 ? number : 0];
        const auto kind = tolower(verb) == 'a' ? MediaKind::Audio : MediaKind::Video;
        switch (verb) {
        case '+':
            arrives(available, std::stoi(word.substr(1)));
            break;
        case '-':
            arrives(notAvailable);
            break;
        case '?':
            arrives(releaseRequest, std::stoi(word.substr(1)), ++m_cookie);
            break;
        case 'A':
        case 'V':
            return receiver.requestDecoder(kind, who, [&] { return who && who->isInterrupted; })
                       ? "yes "
                       : "no ";
        case 'a':
        case 'v':
            noLongerNeeded((std::string("-") + nameOf(kind)).c_str(), who);
            break;
        case 'o':
            noLongerNeeded("+audio", who);
            break;
        case 'L':
            receiver.leave(who);
            break;
        case 'B':
        case 'W':
            who->isInterrupted = verb == 'B';
            break;
        case 'x':
            receiver.cutOff();
            break;
        default:
            ADD_FAILURE() << word;
        }
        return {};
    }

    Requester m_first;
    Requester m_second;
    Requester* const m_requesters[3] = {nullptr, &m_first, &m_second};
    int32_t m_cookie = 40;
};

/// A story a line: steps, and after each "=" all that holds then: answers, what was sent (with its
/// cookies), whether an error was logged; the kinds asked back, used and available.
constexpr const char* stories = R"(
+1 = 001; +1 = 001; +2 = 003; - = 003; A1 V2 = yes yes 033
+3 V1 V1 V2 V0 A1 = yes yes yes yes yes 033; v1 = 033; v1 = 033; L1 = 023; L1 = 023; v2 = 023; a2 = 023
+2 V1 V0 = yes yes 022; v0 = 022; v2 = 022; v1 = 002; v1 L2 a0 = 002; V2 = yes 022; L2 = 002
+3 A1 V1 A2 ?2 ?1 = yes yes yes error 333; L1 = 520(2) 111; L2 = 520(1) 000
+3 A1 V1 ?2 ?1 ?3 = yes yes error 333; L1 = 520(1) 520(2) 520(3) 000
+3 = 003; ?1 = 520(1)#41-41 002; ?1 = 520(1)#42-42 002; ?3 = 520(3)#43-43 000
+3 A1 = yes 013; ?2 = 520(2)#41-41 011; ?0 = 011; a1 = 001; ?0 = 001
+3 V1 ?-1 = yes error 429496729523; v1 = 520(-1) 000; +2 = 002
+7 = 007; ?4 = 520(4)#41-41 003; ?-1 = 520(-1)#42-42 000
+3 A1 = yes 013; ?3 = error 313; v1 = 313; a2 = 313; a1 = 520(3) 000; a1 = 000
+3 A1 V1 ?1 = yes yes error 133; v1 = 113; a1 = 520(1) 002; V1 = yes 022
+3 A1 V1 ?3 ?1 ?2 ?1 = yes yes error 333; a1 = 520(1) 520(1) 322; ?1 = 520(1)#45-45 322; v1 = 520(3) 520(2) 000
+1 A1 A2 = yes yes 011; o1 = 011; a1 = 011; o2 = 011; a2 = 001
+1 A1 ?1 = yes error 111; A2 = yes 111; a1 = 111; L2 = 520(1) 000
+3 B1 = 003; A1 V1 A2 V0 = no no yes yes 033; W1 A1 = yes 033
+3 A1 ?1 = yes error 113; x = 113; A1 V2 A0 = no no no 113; L1 = 520(1) 002
)";

TEST(DecoderStories, EachStepLeavesExactlyThis) {
    std::istringstream lines(stories);
    for (std::string line; std::getline(lines, line);) {
        Story story;
        std::istringstream stream(line);
        for (std::string step; std::getline(stream, step, ';');) {
            const size_t equals = step.find(" = ");
            ASSERT_NE(equals, std::string::npos) << step;
            EXPECT_EQ(story.after(step.substr(0, equals)), step.substr(equals + 3)) << line;
        }
    }
}

TEST_F(DecoderLinkTest, AGrantIsAskedForOnceAndStays) {
    auto video = asks("video");
    EXPECT_EQ(sent(), "516(2) ");
    expectState(0, 0, 0, true, 1);
    wakesInVain([&] { arrives(available, 1); });
    arrives(available, 2);
    EXPECT_TRUE(video.get());
    EXPECT_TRUE(receiver.requestDecoder(MediaKind::Audio, nullptr))
        << "nobody had asked; it is kept";
    EXPECT_TRUE(receiver.requestDecoder(MediaKind::Video, nullptr));
    EXPECT_EQ(sent(), "");
    expectState(0, 3, 3, true, 0);
}

TEST_F(DecoderLinkTest, OtherTypesAreRefusedSilently) {
    for (const char* const type :
         {"", "-audio", "Video", "text", static_cast<const char*>(nullptr)})
        EXPECT_EQ(CUvaGstIfReceiver::decoder_request_cb(nullptr, type, &receiver), 0);
    EXPECT_EQ(CUvaGstIfReceiver::decoder_request_cb(nullptr, "video", nullptr), 0);
    EXPECT_EQ(sent(), "");
    EXPECT_EQ(media.lines(UvaGstIfMedia::Debug), "");
}

/// Whatever changes is told of to who sleeps.
TEST_F(DecoderLinkTest, EveryChangeWakesTheSleepers) {
    Requester other;
    auto audio = asks("audio");
    const std::function<void()> changes[] = {
        [&] { arrives(available, 2); },
        [&] { EXPECT_TRUE(receiver.requestDecoder(MediaKind::Video, &other)); },
        [&] { arrives(releaseRequest, 2); },
        [&] { noLongerNeeded("-video", &other); },
        [&] { arrives(releaseRequest, 2); },
        [&] { receiver.wake(); },
        [&] { receiver.leave(&other); },
    };
    for (const auto& change : changes)
        wakesInVain(change);
    std::future<bool> too;
    wakesInVain([&] { too = asks("video"); }, 2);
    receiver.cutOff();
    EXPECT_FALSE(too.get());
    EXPECT_FALSE(audio.get());
}

TEST_F(DecoderLinkTest, ARefusalEndsAllWaits) {
    auto audio = asks("audio");
    auto video = asks("video");
    arrives(notAvailable);
    EXPECT_FALSE(audio.get());
    EXPECT_FALSE(video.get());
    expectState(0, 0, 0, false, 0);
    auto again = asks("audio");
    arrives(available, 1);
    EXPECT_TRUE(again.get());
}

/// What ended a wait counts though somebody makes it undone before the waiter has come to look.
TEST_F(DecoderLinkTest, AWaitEndsThoughItsEndIsOverWhenItWakes) {
    auto refused = asks("audio");
    clock.wakeLate(true);
    arrives(notAvailable);
    auto next = asks("video");
    clock.wakeLate(false);
    EXPECT_FALSE(refused.get());
    expectState(0, 0, 0, true, 1);
    receiver.cutOff();
    EXPECT_FALSE(next.get());
}

TEST_F(DecoderLinkTest, WithoutAnAnswerItTakesFiveSeconds) {
    auto answer = asks("video");
    wakesInVain([&] { clock.advance(4999ms); });
    clock.advance(1ms);
    EXPECT_FALSE(answer.get());
    expectState(0, 0, 0, true, 0);
    arrives(available, 2);
    EXPECT_TRUE(receiver.requestDecoder(MediaKind::Video, nullptr)) << "the late grant counts";
    EXPECT_EQ(sent(), "516(2) ");
}

TEST_F(DecoderLinkTest, TearDownEndsTheWaitsOfItsRequesterOnly) {
    Requester going;
    Requester staying;
    auto goingAudio = asks("audio", &going);
    auto goingVideo = asks("video", &going);
    auto other = asks("audio", &staying);
    wakesInVain([&] {
        interrupt(going);
        EXPECT_FALSE(goingAudio.get());
        EXPECT_FALSE(goingVideo.get());
    });
    EXPECT_EQ(sent(), "516(1) 516(2) 516(1) ");
    EXPECT_FALSE(receiver.requestDecoder(MediaKind::Video, &going, [] { return true; }))
        << "no new wait begins";
    EXPECT_EQ(sent(), "") << "nobody is asked";
    arrives(available, 1);
    EXPECT_TRUE(other.get());
}

/// A grant that comes with the tear-down is not used by what goes.
TEST_F(DecoderLinkTest, AGrantAfterABrokenWaitIsNotUsed) {
    Requester going;
    auto answer = asks("video", &going);
    clock.wakeLate(true);
    interrupt(going);
    arrives(available, 2);
    clock.wakeLate(false);
    EXPECT_FALSE(answer.get());
    expectState(0, 0, 2, true, 0);
}

TEST_F(DecoderLinkTest, TermEndsEveryWaitAndTheThread) {
    CZantMsgQueue late;
    ASSERT_EQ(late.Open("/zant_test_late", O_RDWR | O_CREAT | O_NONBLOCK, 0600, 1, true), 0);
    const std::string name =
        "/Q_UVAGST_IF_REC_" + std::to_string(reinterpret_cast<intptr_t>(&receiver));
    mq_attr foreign{};
    foreign.mq_maxmsg = 1;
    foreign.mq_msgsize = 64;
    mq_close(mq_open(name.c_str(), O_RDWR | O_CREAT, 0600, &foreign)); // of an earlier run
    CUvaGstIfReceiver other(lowerLayer, clock);
    for (CUvaGstIfReceiver* const each : {&receiver, &other}) {
        ASSERT_EQ(each->Init(), 0);
        ASSERT_EQ(each->StartThread(each == &other ? "other" : "uvagst_if_receiver", 0, 0), 0);
    }
    EXPECT_EQ(receiver.QueueName(), name);
    EXPECT_TRUE(areThreads("uvagst_if_recei", 1));
    CZantMsg grant(available);
    grant.param1 = 2;
    EXPECT_EQ(receiver.SendCmd(&grant), 0);
    EXPECT_TRUE(receiver.requestDecoder(MediaKind::Video, nullptr))
        << "its thread handles what comes";
    auto answer = asks("audio");
    receiver.Term();
    EXPECT_FALSE(answer.get());
    EXPECT_FALSE(receiver.requestDecoder(MediaKind::Video, nullptr));
    EXPECT_TRUE(areThreads("uvagst_if_recei", 0));
    other.StopThreadAndWait();
    EXPECT_EQ(CThreadObject::GetThreadName(0), "other") << "who ends now stays listed";
    late.Close();
    EXPECT_EQ(CZantMsgQueue::GetQueueNameByHandle(late.handle), "/zant_test_late");
    CThreadObject::Start();
    CZantMsgQueue::Start();
}

/// ... though another request still waits for its answer.
TEST_F(DecoderLinkTest, ARequestThatCannotBeSentIsRefusedAtOnce) {
    lowerLayer.result = CZantMsgQueue::sendFailed;
    EXPECT_FALSE(receiver.requestDecoder(MediaKind::Video, nullptr));
    expectState(0, 0, 0, false, 0);
    lowerLayer.result = 0;
    auto audio = asks("audio");
    lowerLayer.result = CZantMsgQueue::sendFailed;
    EXPECT_FALSE(receiver.requestDecoder(MediaKind::Video, nullptr));
    EXPECT_EQ(clock.sleeps(), 1);
    expectState(0, 0, 0, true, 1);
    arrives(notAvailable);
    EXPECT_FALSE(audio.get());
}

TEST_F(DecoderLinkTest, WaitingBeforeTearDownGivesBackWhatIsLeft) {
    const auto waits = [this] {
        const int before = clock.sleeps();
        auto wait = std::async(std::launch::async,
                               [this] { receiver.waitForDecoderAvailable(nullptr, "test"); });
        EXPECT_TRUE(waitUntil([&] { return clock.sleeps() > before; }));
        return wait;
    };
    media.onStates = [this, asked = 0]() mutable {
        receiver.state(); // none of the link's locks is held
        return UvaGstIfMedia::States{++asked, 7};
    };
    receiver.waitForDecoderAvailable(nullptr, "nothing in use");
    EXPECT_EQ(clock.sleeps(), 0);

    Requester owner;
    arrives(available, 3);
    for (const auto kind : mediaKinds)
        EXPECT_TRUE(receiver.requestDecoder(kind, &owner));
    for (const int32_t kinds : {3, 2, 1})
        arrives(releaseRequest, kinds);
    media.lines();
    auto wait = waits();
    EXPECT_EQ(media.lines(UvaGstIfMedia::Debug),
              "link 5 from 'test': pipeline state=2 pending=7 decoder_used=3\n"
              "link 5  loop: state=3 pending=7 decoder_used=3\n\n");
    wakesInVain([&] { clock.advance(999ms); });
    EXPECT_EQ(sent(), "");
    std::future<void> bystanders[] = {waits(), waits(), waits()};
    wakesInVain([&] { receiver.wake(); }, 4);
    clock.wakeLate(true);
    clock.advance(1ms);
    clock.wakeLate(false); // in any order
    wait.get();
    for (auto& bystander : bystanders)
        bystander.get();
    EXPECT_EQ(sent(), "520(1) 520(3) 520(2) ") << "audio first";
    expectState(0, 0, 0, false, 0);

    // The next user's own giving back ends it, and so does the end of the link.
    Requester next;
    arrives(available, 3);
    EXPECT_TRUE(receiver.requestDecoder(MediaKind::Audio, &next));
    EXPECT_TRUE(receiver.requestDecoder(MediaKind::Video, &next));
    wait = waits();
    wakesInVain([&] { noLongerNeeded("-audio", &next); });
    noLongerNeeded("-video", &next);
    wait.get();
    EXPECT_TRUE(receiver.requestDecoder(MediaKind::Video, &next));
    wait = waits();
    receiver.cutOff();
    wait.get();
    expectState(0, 0, 3, false, 0);
}

TEST_F(DecoderLinkTest, WhatHappensIsLogged) {
    media.onLog = [this] { receiver.state(); }; // none of the link's locks is held
    arrives(available, 2);
    receiver.requestDecoder(MediaKind::Video, nullptr);
    arrives(releaseRequest, 3);
    noLongerNeeded("-video");
    receiver.cutOff();
    receiver.requestDecoder(MediaKind::Audio, nullptr);
    media.onStates = [] { return UvaGstIfMedia::States{4, 3}; };
    receiver.waitForDecoderAvailable(nullptr, "here");
    receiver.handleApplicationMessage(
        {"GstNoxVideoFormat", nullptr, nullptr, {7, 6, 5, 4, {3, 2}, {25, 1}}});
    EXPECT_EQ(media.lines(UvaGstIfMedia::Debug),
              "link 5 SIG_ID_MPLAYER_DECODER_AVAILABLE_IND(517) l=0\n"
              "link 5 -> available_decoder: '0'|'2'\n\n"
              "link 5 decoder_request=2 decoder_available=2\n"
              "link 5   requested decoder available (decoder_request=2 decoder_available=2)\n"
              "link 5 SIG_ID_MPLAYER_DECODER_RELEASE_REQ(519) l=0\n"
              "link 5 -> decoder_release_request='3' needed='2' available='2'\n"
              "link 1 ***E: how to suspend Mediaplayer pipeline here?\n"
              "link 5 got application message: GstNoxDecoderNeeded\n"
              "link 5 type='-video' -> decoder_release_request='3' needed='2' available='2'\n"
              "link 5 decoder_request=1 decoder_available=0\n"
              "link 5   requested decoder not available (decoder_request=1 decoder_available=0)\n"
              "link 5 from 'here': pipeline state=4 pending=3 decoder_used=0\n"
              "link 5 got application message: GstNoxVideoFormat\n"
              "link 5   Size_Dec    = 7 x 6\n\n"
              "link 5   Size_Disp   = 5 x 4\n\n"
              "link 5   DAR  = 3/2\n\n"
              "link 5   FR   = 25/1\n\n");
    uvaGstIfLog(UvaGstIfMedia::Category::Backend, UvaGstIfMedia::Error, "file", "function", 1, "%s",
                std::string(600, 'x').c_str());
    EXPECT_EQ(media.lines(), "backend 1 " + std::string(511, 'x') + "\n");
}

TEST_F(DecoderLinkTest, ReportsAreByteExact) {
    receiver.handleApplicationMessage(
        {"GstNoxVideoFormat",
         nullptr,
         nullptr,
         {1922, 1088, 65536 + 720, 577, {4096, 2304}, {30000, 1001}}});
    const unsigned char record[22] = {0xde, 0xad, 0xbe, 0xaf, 0xff, 0,    0x07, 0x82,
                                      0x04, 0x40, 0x02, 0xd0, 0x02, 0x41, 0x10, 0,
                                      0x09, 0,    0x75, 0x30, 0x03, 0xe9};
    EXPECT_EQ(sent(), "490(0) " + std::string(reinterpret_cast<const char*>(record), 22) + " ");

    receiver.handleApplicationMessage({"GstNoxAudioFormat", nullptr, "AC-3", {}});
    EXPECT_EQ(sent(), "489(0) <media><audio codec=\"AC-3\" lang=\"und\" /></media>" +
                          std::string("\0 ", 2));

    arrives(available, 2);
    EXPECT_TRUE(receiver.requestDecoder(MediaKind::Video, nullptr));
    for (const UvaGstIfApplicationMessage& nothing :
         {UvaGstIfApplicationMessage{"GstNoxAudioFormat", nullptr, nullptr, {}},
          {"GstNoxDecoderNeeded", nullptr, nullptr, {}},
          {"SomethingElse", "-video", "AC-3", {}},
          {nullptr, "-video", "AC-3", {}}})
        receiver.handleApplicationMessage(nothing);
    EXPECT_EQ(sent(), "");
    expectState(0, 2, 2, false, 0);
    receiver.handleApplicationMessage({"GstNoxVideoFormat", nullptr, nullptr, {}});
    EXPECT_EQ(sent().substr(13), std::string(16, '\0') + " ");
}

TEST_F(DecoderLinkTest, ControlTextsReachTheConnectedBackend) {
    std::string heard;
    const UvaGstIfControl first = [&](const char* commands) { heard += commands + ";"s; };
    const UvaGstIfControl second = [&](const char* commands) {
        heard += "2";
        first(commands);
    };
    const UvaGstIfControl throwing = [](const char*) { throw std::runtime_error("not now"); };
    /// Whether that is logged.
    const auto connect = [this](const UvaGstIfControl* backend) {
        media.lines();
        receiver.connectBackend(backend);
        return media.lines(UvaGstIfMedia::Debug).find("link 5 old = ") == 0;
    };
    arrives(control, 0, 0, "lost");
    EXPECT_TRUE(connect(&first));
    arrives(control, 0, 0, "output-ddp:1");
    arrives(control, 0, 0, "cut here", 3);
    arrives(control, 0, 0, "");
    for (const int32_t size : {-1, 0, 5, INT32_MAX})
        arrives(control, 0, 0, nullptr, size);
    arrives(control, 0, 0, "negative", -1);
    EXPECT_FALSE(connect(&second)) << "as before";
    receiver.disconnectBackend(&first);
    arrives(control, 0, 0, "to the other");
    EXPECT_FALSE(connect(&throwing));
    arrives(control, 0, 0, "lost");
    EXPECT_EQ(media.lines(), "link 1 ***E: SIG_ID_MPLAYER_CONTROL_REQ is lost: not now\n");
    EXPECT_TRUE(connect(nullptr));
    EXPECT_FALSE(connect(nullptr));
    arrives(control, 0, 0, "lost");
    EXPECT_EQ(heard, "output-ddp:1;cut;;2to the other;");
}

TEST_F(DecoderLinkTest, UnknownSignalsAreLoggedAndDropped) {
    arrives(SIG_ID_TEST_RPC, 3, 0, "payload");
    arrives(static_cast<SignalIds>(70000));
    receiver.ProcessZantMsg(nullptr);
    EXPECT_EQ(media.lines(), "link 2 unhandled message: SIG_ID_TEST_RPC (32) l=7\n"
                             "link 2 unhandled message: SIG_ID_NULL (70000) l=0\n");
    EXPECT_EQ(receiver.state().available, 0u);
}

} // namespace
