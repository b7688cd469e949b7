// The link with its real queues, and a main system that is nothing but the two ends of them.

#include "UvaGstIfLink.h"
#include "decoder_link_fixture.h"
#include "messaging/queue/zant_msg_body.h"
#include "messaging_fixture.h"
#include "support/no_threads.h"
#include "support/private_arena.h"

#include <array>
#include <cstdlib>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using support::waitUntil;

constexpr const char* ownQueue = "/BplayerAppIfLlDestFunc";
constexpr const char* mainSystemQueue = "/BplayerAppIfUlDestFunc";

class DecoderWire : public MessagingTest {
protected:
    DecoderWire() {
        mq_unlink(ownQueue);
        mq_unlink(mainSystemQueue);
        m_mainSystem = makeQueue(mainSystemQueue, sizeof(ZantMsgBody));
        EXPECT_EQ(open(m_receiver, "_receiver"), 0);
    }
    ~DecoderWire() override {
        mq_close(m_mainSystem);
        mq_unlink(ownQueue);
        mq_unlink(mainSystemQueue);
    }

    static mqd_t makeQueue(const char* name, long size) {
        mq_attr attributes{};
        attributes.mq_maxmsg = 10;
        attributes.mq_msgsize = size;
        const mqd_t queue = mq_open(name, O_RDWR | O_CREAT | O_NONBLOCK, 0600, &attributes);
        EXPECT_GE(queue, 0);
        return queue;
    }
    /// All twelve words that the main system receives next, a payload's bytes in place of its
    /// address.
    std::string received() {
        ZantMsgBody body{};
        if (!waitUntil([&] {
                return mq_receive(m_mainSystem, reinterpret_cast<char*>(&body), sizeof body,
                                  nullptr) == sizeof body;
            }))
            return "none";
        std::array<int32_t, 12> words{};
        memcpy(words.data(), &body, sizeof body);
        std::string text;
        for (size_t i = 0; i < words.size(); ++i)
            text += i == 10 ? "" : std::to_string(words[i]) + " ";
        if (body.signalPtr != 0) {
            void* const block = Trid_Util_CPUComm_Convert2VirtualAddr(body.signalPtr);
            text.append(static_cast<char*>(block), static_cast<size_t>(body.signalSize));
            Trid_Util_CPUComm_Free(block);
        }
        return text;
    }
    /// The main system sends.
    static void send(uint32_t signal, int32_t param1, const std::string& payload = {}) {
        ZantMsgBody body{};
        body.signalId = signal;
        body.param1 = param1;
        body.responseInfo = 21;
        body.responseInfo2 = -22;
        body.rpcControl = 1 << 16;
        if (!payload.empty()) {
            const auto size = static_cast<uint32_t>(payload.size());
            void* const block = Trid_Util_CPUComm_Malloc(size);
            body.signalSize = static_cast<int32_t>(size);
            body.signalPtr = Trid_Util_CPUComm_Convert2PhyAddr(memcpy(block, payload.data(), size));
        }
        const mqd_t to = mq_open(ownQueue, O_WRONLY | O_NONBLOCK);
        EXPECT_EQ(mq_send(to, reinterpret_cast<const char*>(&body), sizeof body, 0), 0);
        mq_close(to);
    }

    support::PrivateArena m_arena;
    FakeMedia m_media;
    CZantMsgQueue m_receiver;
    mqd_t m_mainSystem = -1;
};

TEST_F(DecoderWire, TheMainSystemReceivesEachWordInItsPlace) {
    CUvaGstMsgDestLowerLayer destination;
    CUvaGstIfLowerLayer lowerLayer(destination);
    CZantMsg early(516);
    EXPECT_EQ(lowerLayer.SendCmd(&early), CThreadObjectWithQueue::sendBeforeInit);
    EXPECT_EQ(m_media.lines(), "backend 1 SendCmd() returned -1110\n");

    EXPECT_EQ(lowerLayer.Init(m_receiver.handle, 7), 0);
    EXPECT_EQ(lowerLayer.NotOpened(), nullptr);
    EXPECT_TRUE(areThreads("UvaGst_If_Lower", 1)) << "the sender; no receiver of its own";
    EXPECT_TRUE(areThreads("BplayerAppIfLlD", 1));

    lowerLayer.sendIndicationInt32(SIG_ID_MPLAYER_DECODER_NEEDED_IND, 2);
    EXPECT_EQ(received(), "516 2 0 0 0 0 0 65536 0 0 0 ");
    CZantMsg request(SIG_ID_MPLAYER_DECODER_RELEASE_REQ);
    request.responseInfo = 11;
    request.responseInfo2 = -12;
    request.param2 = request.param3 = request.param4 = 5;
    lowerLayer.sendResponseInt32(SIG_ID_MPLAYER_DECODER_RELEASE_RESP, &request, -3);
    EXPECT_EQ(received(), "520 -3 0 11 -12 0 0 131072 0 0 0 ");
    lowerLayer.sendResponseInt32(SIG_ID_MPLAYER_DECODER_RELEASE_RESP, nullptr, 1);
    EXPECT_EQ(received(), "520 1 0 0 0 0 0 196608 0 0 0 ");
    const unsigned char bytes[] = {'a', 'b', 'c', 'd'};
    lowerLayer.sendIndicationBuffer(SIG_ID_MPLAYER_SET_WINDOW_REQ, bytes, 3);
    EXPECT_EQ(received(), "513 0 0 0 0 0 0 262144 0 3 0 abc");
    lowerLayer.sendIndicationBuffer(SIG_ID_MPLAYER_SET_WINDOW_REQ, bytes + 3, 1);
    EXPECT_EQ(received(), "513 0 0 0 0 0 0 327680 0 1 0 d");
    for (const unsigned char* const data : {static_cast<const unsigned char*>(nullptr), bytes}) {
        lowerLayer.sendIndicationBuffer(SIG_ID_MPLAYER_SET_WINDOW_REQ, data, 0);
        EXPECT_EQ(received().substr(0, 16), "513 0 0 0 0 0 0 ");
    }
    lowerLayer.sendIndicationBuffer(SIG_ID_MPLAYER_SET_WINDOW_REQ, bytes, -1);
    lowerLayer.sendIndicationBuffer(SIG_ID_MPLAYER_SET_WINDOW_REQ, nullptr, 8);
    EXPECT_EQ(m_media.lines(),
              "backend 1 no payload of -1 bytes for SIG_ID_MPLAYER_SET_WINDOW_REQ\n"
              "backend 1 no payload of 8 bytes for SIG_ID_MPLAYER_SET_WINDOW_REQ\n");

    send(SIG_ID_MPLAYER_CONTROL_REQ, 9, "text");
    CZantMsg msg;
    EXPECT_EQ(m_receiver.usleepOnQueue(20'000'000), 1);
    EXPECT_EQ(m_receiver.Receive(&msg, 0), 0);
    EXPECT_EQ(msg.signalId, 530U);
    EXPECT_EQ(msg.param1, 9);
    EXPECT_EQ(msg.responseInfo, 21);
    EXPECT_EQ(msg.responseInfo2, -22);
    EXPECT_EQ(std::string(static_cast<char*>(msg.signalPtr), 4), "text");
}

TEST_F(DecoderWire, WhatWasToldIsHeardWhenTheProcessEndsAtOnce) {
    constexpr int words = 10;
    for (int run = 0; run < 20; ++run) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            const bool isOpen = openUvaGstIfLink().empty();
            for (int i = 0; i < words; ++i)
                uvaGstIfLowerLayer.sendIndicationInt32(SIG_ID_MPLAYER_DECODER_RELEASE_RESP, i);
            std::exit(isOpen ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0);
        mq_attr attributes{};
        mq_getattr(m_mainSystem, &attributes);
        ASSERT_EQ(attributes.mq_curmsgs, words) << "child " << run;
        for (int i = 0; i < words; ++i)
            received();
    }
}

TEST_F(DecoderWire, WithoutThreadsThereIsNoLinkAndNobodyWaits) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const support::NoThreads none;
        const std::string failure = openUvaGstIfLink();
        std::fprintf(stderr, "%s\n", failure.c_str());
        std::_Exit(failure.find("no thread can be started") != std::string::npos ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(DecoderWire, WithoutAReceiverItsOwnThreadTellsTheObservers) {
    struct Observer : CObserverCallbackFunction {
        void CallbackFunction(CZantMsg* msg) override { heard = static_cast<int>(msg->signalId); }
        std::atomic<int> heard{0};
    } observer;
    CUvaGstMsgDestLowerLayer destination;
    CUvaGstIfLowerLayer lowerLayer(destination);
    const auto address = std::to_string(reinterpret_cast<intptr_t>(&lowerLayer));
    mq_close(makeQueue(("/Q_UVAGST_IF_LL_RECEIVE_" + address).c_str(), 64)); // of an earlier run
    lowerLayer.RegisterCallbackFunction(observer, 0, 0, 0);
    EXPECT_EQ(lowerLayer.Init(0, 7), 0);
    EXPECT_EQ(lowerLayer.NotOpened(), nullptr);
    EXPECT_TRUE(areThreads("UvaGst_If_Lower", 2));
    send(SIG_ID_MPLAYER_DECODER_AVAILABLE_IND, 3);
    EXPECT_TRUE(waitUntil([&] { return observer.heard == 517; }));
    EXPECT_EQ(traced("FAILED"), 0);
}

TEST_F(DecoderWire, WhatCannotBeOpenedIsNamed) {
    const auto notOpened = [this](bool withReceiver, int32_t& result) {
        CUvaGstMsgDestLowerLayer destination;
        CUvaGstIfLowerLayer lowerLayer(destination);
        result = lowerLayer.Init(withReceiver ? m_receiver.handle.load() : 0, 0);
        const auto* const part = lowerLayer.NotOpened();
        return part ? part->QueueName().substr(0, 21) : "none";
    };
    int32_t result = 1;
    mq_close(makeQueue(ownQueue, 64));
    EXPECT_EQ(notOpened(true, result), "/BplayerAppIfLlDestFu");
    EXPECT_EQ(result, 0);
    mq_unlink(ownQueue);
    mq_close(makeQueue(ownQueue, sizeof(ZantMsgBody)));
    rlimit before{};
    getrlimit(RLIMIT_MSGQUEUE, &before);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_MSGQUEUE, &none);
    EXPECT_EQ(notOpened(true, result), "/Q_UVAGST_IF_LL_SEND_");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(notOpened(false, result), "/Q_UVAGST_IF_LL_RECEI");
    EXPECT_EQ(result, CZantMsgQueue::openFailed);
    setrlimit(RLIMIT_MSGQUEUE, &before);
}

} // namespace
