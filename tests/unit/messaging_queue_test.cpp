#include "messaging/queue/pointer_tokens.h"
#include "messaging/queue/zant_msg_body.h"
#include "messaging_fixture.h"
#include "support/wait_until.h"
#include "util/scoped_handles.h"

#include <csignal>
#include <thread>
#include <vector>

using pointer_tokens::Kind;

TEST_F(MessagingTest, BodyIsTheTwelveFieldsInOrder) {
    CZantMsg msg(0x04030201);
    msg.param1 = 0x14131211;
    msg.responseQueue = 0x24232221;
    msg.responseInfo = 0x34333231;
    msg.responseInfo2 = 0x44434241;
    msg.param2 = 0x54535251;
    msg.param3 = 0x64636261;
    msg.rpcControl = 0x74737271;
    msg.param4 = -2;
    msg.signalSize = 0x0a;
    msg.sharedAddress = 0xa4a3a2a1;
    const unsigned char expected[48] = {0x01, 0x02, 0x03, 0x04, 0x11, 0x12, 0x13, 0x14, 0x21, 0x22,
                                        0x23, 0x24, 0x31, 0x32, 0x33, 0x34, 0x41, 0x42, 0x43, 0x44,
                                        0x51, 0x52, 0x53, 0x54, 0x61, 0x62, 0x63, 0x64, 0x71, 0x72,
                                        0x73, 0x74, 0xfe, 0xff, 0xff, 0xff, 0x0a, 0x00, 0x00, 0x00,
                                        0xa1, 0xa2, 0xa3, 0xa4, 0x00, 0x00, 0x00, 0x00};
    const ZantMsgBody body = packForOtherProcess(msg);
    EXPECT_EQ(memcmp(&body, expected, sizeof expected), 0);

    // Fields of a used message are overwritten, pointers too.
    CZantMsg back;
    CountedPayload before;
    back.signalPtr = &before;
    back.signalObj = &before;
    unpackFromOtherProcess(body, back);
    EXPECT_EQ(back.signalPtr, nullptr);
    EXPECT_EQ(back.signalObj, nullptr);
    const ZantMsgBody again = packForOtherProcess(back);
    EXPECT_EQ(memcmp(&again, expected, sizeof expected), 0);

    msg.signalSize = 0;
    const ZantMsgBody values = packForOtherProcess(msg);
    CZantMsg copy(msg);
    const ZantMsgBody copied = packForOtherProcess(copy);
    EXPECT_EQ(memcmp(&copied, &values, sizeof values), 0);
}

TEST_F(MessagingTest, PayloadWordIsTakenOnceByItsKindAndSize) {
    int target = 0;
    const uint32_t word = pointer_tokens::put(&target, Kind::buffer, 4);
    ASSERT_NE(word, 0U);
#if UINTPTR_MAX == UINT32_MAX
    EXPECT_EQ(word, reinterpret_cast<uint32_t>(&target));
#endif
    EXPECT_EQ(pointer_tokens::take(word, Kind::object, 4), nullptr);
    EXPECT_EQ(pointer_tokens::take(word, Kind::buffer, 5), nullptr);
    EXPECT_EQ(pointer_tokens::take(word + 0x10000, Kind::buffer, 4), nullptr);
    EXPECT_EQ(pointer_tokens::find(word, Kind::buffer), &target);
    EXPECT_EQ(pointer_tokens::take(word, Kind::buffer, 4), &target);
    EXPECT_EQ(pointer_tokens::take(word, Kind::buffer, 4), nullptr);
    EXPECT_EQ(pointer_tokens::find(word, Kind::buffer), nullptr);
}

TEST_F(MessagingTest, PayloadWordsRunOutInWordsAndComeBackOldestFirst) {
    int target = 0;
    std::vector<uint32_t> words;
    for (;;) {
        // Each at an address of its own, which is its word on 32-bit machines.
        void* const pointer = reinterpret_cast<char*>(&target) + words.size();
        const uint32_t word = pointer_tokens::put(pointer, Kind::buffer);
        if (word == 0)
            break;
        words.push_back(word);
    }
    EXPECT_GT(words.size(), 65000U);
    EXPECT_EQ(traced("No room for another payload or timer"), 1);
    CZantMsgQueue queue;
    ASSERT_EQ(open(queue), 0);
    for (const bool isObject : {false, true}) {
        CZantMsg msg(517);
        load(msg, "no room");
        CZantMsg only(517); // one of the two
        isObject ? std::swap(only.signalObj, msg.signalObj)
                 : std::swap(only.signalPtr, msg.signalPtr);
        only.signalSize = isObject ? 0 : msg.signalSize;
        EXPECT_EQ(queue.Send(&only, 0), -1421);
        EXPECT_EQ(only.signalPtr, nullptr);
        EXPECT_EQ(only.signalObj, nullptr);
    }
    EXPECT_EQ(queue.GetNrOfMsgsInQueue(), 0);
    for (const uint32_t word : words)
        EXPECT_NE(pointer_tokens::take(word, Kind::buffer), nullptr);
#if UINTPTR_MAX > UINT32_MAX
    constexpr uint32_t slotOf = 0x3ffff;
    for (size_t i = 0; i < 3; ++i) {
        const uint32_t word = pointer_tokens::put(&target, Kind::buffer);
        EXPECT_EQ(word & slotOf, words[i] & slotOf) << "the one that was free for longest";
        EXPECT_NE(word, words[i]);
        pointer_tokens::take(word, Kind::buffer);
    }
#endif
}

TEST_F(MessagingTest, SignalsDoNotEndAWait) {
    static std::atomic<int> handled{0};
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) { ++handled; };
    sigaction(SIGUSR1, &action, &before);
    for (const int mode : {0, O_NONBLOCK}) {
        CZantMsgQueue queue;
        ASSERT_EQ(open(queue, "", 10, O_RDWR | O_CREAT | mode), 0);
        handled = 0;
        std::atomic<bool> isOver{false};
        std::thread disturber([&, waiter = pthread_self()] {
            for (int sent = 0; sent < 5; ++sent) {
                pthread_kill(waiter, SIGUSR1);
                support::waitUntil([&] { return handled > sent; });
            }
            CZantMsg msg(517);
            while (!isOver && queue.GetNrOfMsgsInQueue() == 0)
                queue.Send(&msg, 0);
        });
        CZantMsg received;
        EXPECT_EQ(mode == 0 ? queue.Receive(&received, 0)
                            : queue.ReceiveFromNonblockingQueue(&received, 0),
                  0);
        isOver = true;
        disturber.join();
        EXPECT_EQ(handled, 5);
        EXPECT_EQ(received.signalId, 517U);
    }
    sigaction(SIGUSR1, &before, nullptr);
}

/// A descriptor that wakes its reader with something else than a message, as a hung-up pipe does.
TEST_F(MessagingTest, WaitsEndWithTheCodeOfTheirCause) {
    CZantMsgQueue queue;
    ASSERT_EQ(open(queue), 0);
    errno = EINTR; // of an earlier call
    EXPECT_EQ(queue.usleepOnQueue(1), 0);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[1]);
    const ScopedFd kept(dup(queue.handle));
    ASSERT_EQ(dup2(ends[0], queue.handle), queue.handle);
    close(ends[0]);
    CZantMsg msg;
    EXPECT_EQ(queue.ReceiveFromNonblockingQueue(&msg, 0), -1428);
    EXPECT_EQ(traced("select, but not our queue"), 1);
    EXPECT_EQ(queue.usleepOnQueue(1000000), 0);
    ASSERT_EQ(dup2(kept.get(), queue.handle), queue.handle);
    EXPECT_EQ(queue.Close(), 0);
    EXPECT_EQ(queue.ReceiveFromNonblockingQueue(&msg, 0), -1425);
    EXPECT_EQ(traced("select failed - handle="), 1);
    EXPECT_EQ(queue.usleepOnQueue(1), -1);
}

TEST_F(MessagingTest, AttributesAreTheQueuesWhileItIsOpen) {
    CZantMsgQueue queue;
    mq_attr attr{};
    EXPECT_EQ(queue.Getattr(&attr), -1413);
    EXPECT_EQ(queue.GetNrOfMsgsInQueue(), -1415);
    EXPECT_EQ(queue.ClearQueue(), -1420);
    ASSERT_EQ(queue.Open("no slash", O_RDWR, 0, 7, false), -1418);
    EXPECT_NE(queue.OpenError(), 0);
    screen.take();
    ASSERT_EQ(open(queue, "", 7), 0);
    EXPECT_EQ(queue.OpenError(), 0);
    CZantMsgQueue::ClearTotalNrOfSentMsgs();
    CZantMsg msg(517);
    for (int i = 0; i < 2; ++i) {
        load(msg, "the queue's now");
        ASSERT_EQ(msg.SendMsg(&queue, 0), 0);
        EXPECT_EQ(msg.signalPtr, nullptr);
        EXPECT_EQ(msg.signalObj, nullptr);
        EXPECT_EQ(msg.signalSize, 0);
    }
    EXPECT_EQ(CZantMsgQueue::GetTotalNrOfSentMsgs(), 2U);
    EXPECT_EQ(queue.Getattr(&attr), 0);
    EXPECT_EQ(attr.mq_maxmsg, 7);
    EXPECT_EQ(attr.mq_msgsize, 48);
    EXPECT_EQ(attr.mq_curmsgs, 2);
    EXPECT_FALSE(QueueTypeIsBlocking(queue.handle));
    EXPECT_EQ(queue.GetNrOfMsgsInQueue(), 2);
    EXPECT_EQ(traced("FAILED"), 0);
    EXPECT_EQ(queue.Getattr(nullptr), -1412);
    ASSERT_EQ(queue.Close(), 0);
    EXPECT_EQ(queue.Getattr(&attr), -1412);
    EXPECT_EQ(traced("Getattr FAILED - errno = "), 2);
    EXPECT_EQ(queue.GetNrOfMsgsInQueue(), -1414);
    EXPECT_EQ(traced("GetNrOfMsgsInQueue failed - return value: -1"), 1);
    EXPECT_TRUE(QueueTypeIsBlocking(queue.handle));
    EXPECT_EQ(traced("Error getting attributes for queue handle"), 1);
}

TEST_F(MessagingTest, SignalNamesAreDenseAndBounded) {
    const struct {
        uint32_t value;
        const char* name;
    } rows[] = {{0, "SIG_ID_NULL"},
                {3, "SIG_ID_RESERVED_3"},
                {30, "SIG_ID_RESERVED_30"},
                {31, "SIG_ID_STOP_THREAD"},
                {100, "SIG_ID_RESERVED_100"},
                {489, "SIG_ID_MPLAYER_MEDIA_INFO_IND"},
                {517, "SIG_ID_MPLAYER_DECODER_AVAILABLE_IND"},
                {656, "SIG_ID_EXECUTE_SCRIPT_FILE_IN_THREAD"},
                {665, "SIG_ID_RESERVED_665"},
                {670, "SIG_ID_GENERAL_SPARE_9"},
                {671, "SIG_ID_NULL"},
                {0xffffffff, "SIG_ID_NULL"}};
    for (const auto& row : rows)
        EXPECT_STREQ(GetSignalIdNamePtr(static_cast<SignalIds>(row.value)), row.name) << row.value;
}

TEST_F(MessagingTest, CopyTakesAPayloadOnlyWithItsSize) {
    CZantMsg empty(517);
    EXPECT_EQ(CZantMsg().CopyMsg(empty), 0);
    const struct {
        int32_t size;
        int32_t result;
        bool copied;
        int errors;
    } rows[] = {{6, 0, true, 0}, {-6, 0, false, 0}, {0, -1301, false, 1}};
    for (const auto& row : rows) {
        CZantMsg msg(517);
        load(msg, "hello");
        msg.signalSize = row.size;
        CZantMsg copy;
        load(copy, "old");
        EXPECT_EQ(copy.CopyMsg(msg), row.result) << row.size;
        EXPECT_EQ(copy.signalPtr != nullptr, row.copied) << row.size;
        EXPECT_NE(copy.signalPtr, msg.signalPtr);
        EXPECT_EQ(copy.signalSize, row.copied ? row.size : 0);
        EXPECT_NE(copy.signalObj, nullptr);
        EXPECT_EQ(traced("Signal pointer is set, but signalSize is 0"), row.errors);
        copy = static_cast<const CZantMsg&>(copy);
        EXPECT_EQ(copy.signalPtr != nullptr, row.copied) << "assigned to itself";
    }
    // It can be sent without, which is warned of.
    CZantMsgQueue queue;
    ASSERT_EQ(open(queue), 0);
    for (const bool byHandle : {false, true}) {
        CZantMsg msg(517);
        load(msg, "hello");
        msg.signalSize = 0;
        EXPECT_EQ(byHandle ? CZantMsgQueue::Send(queue.handle, &msg, 0) : queue.Send(&msg, 0), 0);
        EXPECT_EQ(traced("Signal pointer is set, but signalSize is 0"), 1);
        CZantMsg received;
        EXPECT_EQ(queue.Receive(&received, 0), 0);
        EXPECT_STREQ(static_cast<char*>(received.signalPtr), "hello");
    }
}

TEST_F(MessagingTest, FailedSendFreesThePayloadsAndSaysWhy) {
    CZantMsgQueue full;
    ASSERT_EQ(open(full, "", 1), 0);
    CZantMsg first(1);
    ASSERT_EQ(full.Send(&first, 0), 0);
    CZantMsgQueue neverOpened;
    CZantMsgQueue closed;
    ASSERT_EQ(open(closed, "_closed"), 0);
    ASSERT_EQ(closed.Close(), 0);
    CZantMsgQueue shared;
    shared.CarrySharedAddresses([](uint32_t) {});
    ASSERT_EQ(open(shared, "_shared"), 0);

    using Send = int32_t (*)(CZantMsg&, CZantMsgQueue&);
    const Send byObject = [](CZantMsg& m, CZantMsgQueue& q) { return q.Send(&m, 0); };
    const Send byHandle = [](CZantMsg& m, CZantMsgQueue& q) {
        return CZantMsgQueue::Send(q.handle, &m, 0);
    };
    const struct {
        const char* what;
        Send send;
        CZantMsgQueue& queue;
        int32_t code;
        int traces;
    } rows[] = {
        {"object, full", byObject, full, -1421, 1},
        {"handle, full", byHandle, full, -1421, 1},
        {"object, not open", byObject, neverOpened, -1422, 0},
        {"object, closed", byObject, closed, -1421, 1},
        {"handle -1", [](CZantMsg& m, CZantMsgQueue&) { return m.SendMsg(-1, 0); }, full, -1423, 0},
        {"handle 0", [](CZantMsg& m, CZantMsgQueue&) { return m.SendMsg(0, 0); }, full, -1427, 0},
        {"handle of nothing", [](CZantMsg& m, CZantMsgQueue&) { return m.SendMsg(9999, 0); }, full,
         -1421, 0},
        {"no queue",
         [](CZantMsg& m, CZantMsgQueue&) {
             return m.SendMsg(static_cast<CZantMsgQueue*>(nullptr), 0);
         },
         full, -1423, 0},
        {"no response queue", [](CZantMsg& m, CZantMsgQueue&) { return m.SendMsgIndirect(0); },
         full, -1300, 0},
        {"object, reader elsewhere", byObject, shared, -1421, 1},
        {"handle, reader elsewhere", byHandle, shared, -1421, 1},
        {"negative priority", [](CZantMsg& m, CZantMsgQueue& q) { return m.SendMsg(&q, -1); }, full,
         -1421, 1},
    };
    for (const auto& row : rows) {
        traced("");
        CZantMsg msg(517);
        load(msg, "payload");
        EXPECT_EQ(row.send(msg, row.queue), row.code) << row.what;
        EXPECT_EQ(CountedPayload::alive, 0) << row.what;
        EXPECT_EQ(msg.signalPtr, nullptr) << row.what;
        EXPECT_EQ(traced("FAILED"), row.traces) << row.what;
    }
    EXPECT_EQ(shared.GetNrOfMsgsInQueue(), 0);
    EXPECT_EQ(full.Send(nullptr, 0), -1426);
    EXPECT_EQ(CZantMsgQueue::Send(3, nullptr, 0), -1426);

    full.sendErrorsSuppressed = true;
    traced("");
    const uint32_t sentBefore = CZantMsgQueue::GetTotalNrOfSentMsgs();
    for (const Send send : {byObject, byHandle}) {
        CZantMsg dropped(517);
        load(dropped, "payload");
        EXPECT_EQ(send(dropped, full), 0);
        EXPECT_EQ(CountedPayload::alive, 0);
    }
    EXPECT_EQ(traced("FAILED"), 0);
    EXPECT_EQ(CZantMsgQueue::GetTotalNrOfSentMsgs(), sentBefore);
    CZantMsg received;
    EXPECT_EQ(full.Receive(&received, 0), 0);
    EXPECT_FALSE(full.sendErrorsSuppressed) << "receiving clears it";
}
