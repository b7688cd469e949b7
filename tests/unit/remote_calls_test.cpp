#include "messaging/remote/zant_rpc_msg_dest_posix.h"
#include "messaging/remote/zant_rpc_msg_src_posix.h"

#include "messaging/queue/zant_msg_body.h"
#include "messaging_fixture.h"
#include "support/private_arena.h"
#include "support/wait_until.h"

#include <chrono>
#include <cstdint>
#include <mqueue.h>
#include <optional>
#include <string>

namespace {

using namespace std::chrono_literals;

/// What was delivered, kept in its queue until it is asked for.
class Observer {
public:
    explicit Observer(const std::string& name, int room = 10) {
        EXPECT_EQ(m_queue.Open(name.c_str(), O_RDWR | O_CREAT | O_NONBLOCK, 0600, room, true), 0);
    }
    int handle() const { return m_queue.handle; }
    /// Signal, first parameter and payload of the next message; none if nothing comes.
    std::string next(std::chrono::milliseconds patience = 20s) {
        CZantMsg msg;
        const auto microseconds = std::chrono::microseconds(patience).count();
        if (m_queue.usleepOnQueue(static_cast<unsigned long>(microseconds)) != 1 ||
            m_queue.Receive(&msg, 0) != 0)
            return "none";
        std::string text = std::to_string(msg.signalId) + " " + std::to_string(msg.param1);
        if (msg.signalPtr)
            text += " " + std::string(static_cast<char*>(msg.signalPtr),
                                      static_cast<size_t>(msg.signalSize));
        return text;
    }

private:
    CZantMsgQueue m_queue;
};

class RemoteCalls : public MessagingTest {
protected:
    RemoteCalls() { mq_unlink(queue().c_str()); }
    ~RemoteCalls() override { mq_unlink(queue().c_str()); }

    static std::string function() { return queueName("_func").substr(1); }
    static std::string queue() { return queueName("_func"); }

    int32_t start(CZantRpcMsgDestPosix& destination, const Observer& observer) {
        return destination.Init(function().c_str(), nullptr, CPUID_APPLICATION, observer.handle(),
                                7);
    }
    /// The peer's queue, where nobody but the test reads.
    static mqd_t peerQueue(int room = 4) {
        mq_attr attributes{};
        attributes.mq_maxmsg = room;
        attributes.mq_msgsize = sizeof(ZantMsgBody);
        return mq_open(queue().c_str(), O_RDWR | O_CREAT | O_NONBLOCK, 0600, &attributes);
    }
    static std::optional<ZantMsgBody> read(mqd_t from) {
        ZantMsgBody body{};
        if (mq_receive(from, reinterpret_cast<char*>(&body), sizeof body, nullptr) != sizeof body)
            return std::nullopt;
        return body;
    }
    static uint32_t sequence(const ZantMsgBody& body) { return body.rpcControl >> 16 & 0xff; }

    static void put(const ZantMsgBody& body) {
        const mqd_t to = mq_open(queue().c_str(), O_WRONLY | O_NONBLOCK);
        EXPECT_EQ(mq_send(to, reinterpret_cast<const char*>(&body), sizeof body, 0), 0);
        mq_close(to);
    }
    static ZantMsgBody body(uint32_t signal, int32_t param1, uint32_t number, int32_t size = 0,
                            uint32_t address = 0) {
        ZantMsgBody result{};
        result.signalId = signal;
        result.param1 = param1;
        result.rpcControl = number << 16;
        result.signalSize = size;
        result.signalPtr = address;
        return result;
    }
    static uint32_t block(const char* text) {
        void* const memory = Trid_Util_CPUComm_Malloc(static_cast<uint32_t>(strlen(text)));
        memcpy(memory, text, strlen(text));
        return Trid_Util_CPUComm_Convert2PhyAddr(memory);
    }
    static CZantMsg message(uint32_t signal, int32_t param1, const char* text = nullptr) {
        CZantMsg msg(signal);
        msg.param1 = param1;
        if (text) {
            msg.signalSize = static_cast<int32_t>(strlen(text));
            msg.signalPtr = memcpy(::operator new(strlen(text)), text, strlen(text));
        }
        return msg;
    }
    void initSource(const std::string& target = function()) {
        EXPECT_EQ(source.Init(queueName("_src").c_str(), 10, CPUID_MAIN, target), 0);
    }

    support::PrivateArena m_arena;
    CZantRpcMsgSrcPosix source;
};

TEST_F(RemoteCalls, MessagesAndPayloadsReachTheObservers) {
    Observer observer(queueName("_obs"));
    CZantRpcMsgDestPosix destination;
    ASSERT_EQ(start(destination, observer), 0);
    initSource();
    ASSERT_EQ(source.StartThread("source", 0, 0), 0);
    const std::string longText(64 * 1024, 'x');
    for (const char* const text : {"", "short", longText.c_str()}) {
        CZantMsg msg = message(SIG_ID_TEST_RPC, -5, *text ? text : nullptr);
        EXPECT_EQ(source.SendCmd(&msg), 0);
        EXPECT_EQ(msg.signalPtr, nullptr);
        EXPECT_EQ(observer.next(), "32 -5" + std::string(*text ? " " : "") + text);
    }
    EXPECT_EQ(source.GetNrOfRpcCalls(), 3u);
    CZantMsg withObject(SIG_ID_TEST_RPC);
    withObject.signalObj = new CountedPayload;
    EXPECT_NE(source.SendCmd(&withObject), 0);
    EXPECT_EQ(traced("Sending objects via RPC not yet supported -  - Signal = SIG_ID_TEST_RPC"), 1);
    EXPECT_EQ(source.GetNrOfRpcCalls(), 3u);
}

TEST_F(RemoteCalls, WireBytesAreExact) {
    const mqd_t peer = peerQueue();
    CZantMsg msg = message(516, 2, "payload");
    msg.rpcControl = 0xaabbccdd;
    initSource("/" + function());
    EXPECT_EQ(source.SendMsgViaRpcPosixQueue(&msg), 0);
    unsigned char bytes[48] = {};
    ASSERT_EQ(mq_receive(peer, reinterpret_cast<char*>(bytes), sizeof bytes, nullptr), 48);
    const unsigned char expected[40] = {0x04, 0x02, 0, 0,    2, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                        0,    0,    0, 0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                        0xdd, 0xcc, 1, 0xaa, 0, 0, 0, 0, 7, 0, 0, 0};
    EXPECT_EQ(memcmp(bytes, expected, sizeof expected), 0);
    uint32_t address = 0;
    memcpy(&address, bytes + 40, sizeof address);
    void* const block = Trid_Util_CPUComm_Convert2VirtualAddr(address);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(memcmp(block, "payload", 7), 0);
    Trid_Util_CPUComm_Free(block);
    mq_close(peer);
}

/// Absent, there, full, gone and replaced.
TEST_F(RemoteCalls, SourceFollowsThePeersQueue) {
    initSource();
    bool hasPayload = true;
    const auto send = [&] {
        CZantMsg msg = message(516, 1, "payload");
        const int32_t result = source.SendMsgViaRpcPosixQueue(&msg);
        EXPECT_EQ(msg.signalPtr, nullptr);
        hasPayload = msg.signalSize != 0 || msg.sharedAddress != 0;
        return result;
    };
    EXPECT_EQ(send(), -1421);
    EXPECT_EQ(traced("Error opening target queue : " + queue()), 1);
    mqd_t peer = peerQueue(1);
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(send(), -1421) << "full";
    EXPECT_FALSE(hasPayload) << "it has gone, and is freed once";
    EXPECT_EQ(traced("CZantRpcMsgSrcPosix::Send (FAILED"), 1);
    const auto first = read(peer);
    ASSERT_TRUE(first);
    EXPECT_EQ(sequence(*first), 1u) << "what never reached a queue left no gap";
    Trid_Util_CPUComm_Free(Trid_Util_CPUComm_Convert2VirtualAddr(first->signalPtr));

    mq_unlink(queue().c_str());
    EXPECT_EQ(send(), -1421) << "nobody reads the old queue";
    const mqd_t successor = peerQueue(1);
    EXPECT_EQ(send(), 0);
    EXPECT_FALSE(read(peer));
    const auto second = read(successor);
    ASSERT_TRUE(second);
    EXPECT_EQ(sequence(*second), 3u) << "the full queue left a gap";
    Trid_Util_CPUComm_Free(Trid_Util_CPUComm_Convert2VirtualAddr(second->signalPtr));
    mq_close(peer);
    mq_close(successor);
}

TEST_F(RemoteCalls, WithoutSharedMemoryThePayloadIsRefused) {
    const mqd_t peer = peerQueue();
    initSource();
    for (const char* const fault : {"malloc", "phys"}) {
        cpucomm::setFaults(fault);
        CZantMsg msg = message(516, 1, "payload");
        EXPECT_EQ(source.SendMsgViaRpcPosixQueue(&msg), -1322) << fault;
        EXPECT_EQ(msg.signalPtr, nullptr);
    }
    CZantMsg without = message(516, 1);
    EXPECT_EQ(source.SendMsgViaRpcPosixQueue(&without), 0);
    EXPECT_EQ(sequence(*read(peer)), 1u);
    mq_close(peer);
}

TEST_F(RemoteCalls, SequenceNumbersSkipWhatTheyStandFor) {
    const mqd_t peer = peerQueue();
    initSource();
    uint32_t expected = 1;
    for (int i = 0; i < 600; ++i) {
        CZantMsg msg = message(516, i);
        ASSERT_EQ(source.SendMsgViaRpcPosixQueue(&msg), 0);
        ASSERT_EQ(sequence(*read(peer)), expected);
        expected = expected == 254 ? 2 : expected + 1;
    }
    mq_close(peer);
}

TEST_F(RemoteCalls, GapsAreReportedAndDeliveredAllTheSame) {
    const struct {
        uint32_t received;
        bool reported;
    } rows[] = {{9, false}, {10, false}, {3, true},   {4, false}, {6, true},   {7, false},
                {1, false}, {2, false},  {254, true}, {2, false}, {200, true}, {1, false}};
    Observer observer(queueName("_obs"));
    CZantRpcMsgDestPosix destination;
    ASSERT_EQ(destination.RegisterCallbackQueue(observer.handle(), 0, 0, 0), 0);
    for (const auto& row : rows) {
        CZantMsg msg = message(SIG_ID_TEST_RPC, 1);
        msg.rpcControl = row.received << 16;
        destination.ProcessZantMsg(&msg);
        EXPECT_EQ(traced("Illegal sequence nr"), row.reported ? 1 : 0) << row.received;
        EXPECT_EQ(observer.next(), "32 1");
    }
    CZantMsg msg = message(SIG_ID_TEST_RPC, 1);
    msg.sharedAddress = block("payload");
    msg.signalSize = 7;
    destination.ProcessZantMsg(&msg);
    EXPECT_EQ(msg.sharedAddress, 0U) << "the block has gone";
    EXPECT_EQ(observer.next(), "32 1 payload");
}

/// Whatever arrives, nothing leaks, nothing is read beyond its block, and the next message counts.
TEST_F(RemoteCalls, HostileMessagesAreDropped) {
    Observer observer(queueName("_obs"));
    CZantRpcMsgDestPosix destination;
    ASSERT_EQ(start(destination, observer), 0);
    uint32_t number = 1;
    const auto arrives = [&](int32_t size, uint32_t address, const std::string& expected) {
        SCOPED_TRACE(std::to_string(size) + " at " + std::to_string(address));
        put(body(530, 1, number++, size, address));
        put(body(31, 0, number++, 7, block("payload"))); // a stop is not for others to order
        put(body(517, 2, number++));
        EXPECT_EQ(observer.next(), expected);
        if (expected != "517 2") {
            EXPECT_EQ(observer.next(), "517 2");
        }
    };
    constexpr int32_t twoGigabytes = INT32_MAX;
    for (const int32_t size : {-1, INT32_MIN, twoGigabytes, 8})
        arrives(size, block("payload"), "517 2");
    EXPECT_TRUE(support::waitUntil([] { return cpucomm::statistics().blocks == 0; }));
    arrives(7, block("payload"), "530 1 payload");
    arrives(3, block("payload"), "530 1 pay");
    arrives(0, block("payload"), "530 1");
    arrives(7, 0x12345678, "517 2");
    arrives(7, 0xffffffff, "517 2");
    arrives(0, 0x12345678, "530 1");
    arrives(twoGigabytes, 0, "530 1");
    const uint32_t freed = block("payload");
    Trid_Util_CPUComm_Free(Trid_Util_CPUComm_Convert2VirtualAddr(freed));
    arrives(7, freed, "517 2");
    const mqd_t to = mq_open(queue().c_str(), O_WRONLY);
    EXPECT_EQ(mq_send(to, "short", 5, 0), 0);
    mq_close(to);
    arrives(0, 0, "530 1");
}

TEST_F(RemoteCalls, WhatNobodyReadsIsFreed) {
    {
        Observer full(queueName("_obs"), 1);
        CZantRpcMsgDestPosix destination;
        ASSERT_EQ(start(destination, full), 0);
        for (uint32_t number = 1; number <= 5; ++number) {
            put(body(530, 1, number, 7, block("payload")));
            ASSERT_TRUE(support::waitUntil([] { return cpucomm::statistics().blocks == 0; }));
        }
        EXPECT_EQ(full.next(), "530 1 payload");
        EXPECT_EQ(full.next(0ms), "none");
    }
    // Nor does what still waits when the thread ends stay behind.
    Observer observer(queueName("_obs"));
    for (int i = 0; i < 20; ++i) {
        CZantRpcMsgDestPosix destination;
        ASSERT_EQ(start(destination, observer), 0);
        for (uint32_t number = 1; number <= 5; ++number)
            put(body(530, 1, number, 7, block("payload")));
        destination.StopThreadAndWait();
        EXPECT_EQ(cpucomm::statistics().blocks, 0u);
        while (observer.next(0ms) != "none") {
        }
    }
}

} // namespace
