#include "debug/shell/mshell.h"
#include "messaging/queue/pointer_tokens.h"
#include "messaging/queue/zant_msg_body.h"
#include "messaging/queue/zant_msg_queue_mshell.h"
#include "messaging_fixture.h"
#include "support/wait_until.h"
#include "util/scoped_handles.h"

#include <algorithm>
#include <csignal>
#include <fstream>
#include <random>
#include <sstream>
#include <sys/resource.h>
#include <sys/wait.h>
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

TEST_F(MessagingTest, OpenRefusesWhatIsNoQueue) {
    const std::string tooLong = "/" + std::string(300, 'x');
    const struct {
        const char* name;
        int maxMsgs;
    } rows[] = {{nullptr, 5},           {"", 5},
                {"no_slash/inside", 5}, {"no_slash_and_too_large", 70000},
                {tooLong.c_str(), 5},   {"/zant_test_negative", -1},
                {"/zant_test_zero", 0}};
    for (const auto& row : rows) {
        CZantMsgQueue queue;
        EXPECT_EQ(queue.Open(row.name, O_RDWR | O_CREAT, 0600, row.maxMsgs, false), -1418);
        EXPECT_EQ(queue.handle, -1);
        EXPECT_EQ(queue.GetNrOfMsgsInQueue(), -1415);
        EXPECT_EQ(queue.Close(), -1411);
        EXPECT_EQ(traced("CZantMsgQueue::Open"), 1) << "only that it failed";
    }
    CZantMsgQueue queue;
    EXPECT_EQ(queue.OpenWithAttrStruct("/zant_test", O_RDWR, 0, nullptr, false), -1418);
    EXPECT_EQ(queue.Unlink(), -1417);
    EXPECT_EQ(queue.usleepOnQueue(10), -1);
    CZantMsg msg;
    EXPECT_EQ(queue.Receive(&msg, 0), -1420);
    EXPECT_EQ(queue.ReceiveFromNonblockingQueue(&msg, 0), -1420);
}

TEST_F(MessagingTest, CapacityAboveTheKernelsLimitBecomesTheLimit) {
    long room = 0;
    std::ifstream("/proc/sys/fs/mqueue/msg_max") >> room;
    if (room < 1 || room > 100000)
        GTEST_SKIP() << "the kernel tells no limit to run into";
    CZantMsgQueue queue;
    const int32_t result = open(queue, "", static_cast<int>(room) + 1);
    mq_attr attr{};
    if (result == 0 && queue.Getattr(&attr) == 0 && attr.mq_maxmsg > room)
        GTEST_SKIP() << "this process may exceed the limit";
    ASSERT_EQ(result, 0);
    EXPECT_EQ(attr.mq_maxmsg, room);
    EXPECT_EQ(traced("fs.mqueue.msg_max"), 1);
}

TEST_F(MessagingTest, QueueOfOtherMessagesIsRefused) {
    mq_attr attr{};
    attr.mq_maxmsg = 2;
    attr.mq_msgsize = 64;
    const std::string name = queueName("_other");
    const mqd_t other = mq_open(name.c_str(), O_RDWR | O_CREAT, 0600, &attr);
    ASSERT_GE(other, 0);
    {
        CZantMsgQueue queue;
        EXPECT_EQ(queue.Open(name.c_str(), O_RDWR | O_CREAT, 0600, 10, false), -1418);
    }
    mq_close(other);
    EXPECT_EQ(mq_unlink(name.c_str()), 0) << "was left alone";
}

TEST_F(MessagingTest, ForeignBytesAreAnsweredWithOneTraceEach) {
    CZantMsgQueue queue;
    ASSERT_EQ(open(queue), 0);
    CZantMsg mine(517);
    load(mine, "mine");
    ASSERT_EQ(queue.Send(&mine, 0), 0);

    std::mt19937 random(20);
    for (int i = 0; i < 2000; ++i) {
        uint32_t words[12];
        for (uint32_t& word : words)
            word = random() | 1;
        ASSERT_EQ(mq_send(queue.handle, reinterpret_cast<char*>(words), sizeof words, 1), 0);
        CZantMsg msg;
        ASSERT_EQ(queue.Receive(&msg, 0), 0);
        ASSERT_EQ(msg.signalPtr, nullptr);
        ASSERT_EQ(msg.signalObj, nullptr);
        ASSERT_EQ(msg.signalSize, 0);
        ASSERT_EQ(static_cast<int32_t>(words[1]), msg.param1);
    }
    EXPECT_EQ(traced("Payload is unknown here"), 2000);

    ASSERT_EQ(mq_send(queue.handle, "short", 5, 1), 0);
    CZantMsg msg;
    EXPECT_EQ(queue.Receive(&msg, 0), -1419);
    EXPECT_EQ(traced("Message of 5 bytes"), 1);
    ASSERT_EQ(queue.Receive(&msg, 0), 0);
    EXPECT_STREQ(static_cast<char*>(msg.signalPtr), "mine");
}

/// Each way into a state, each operation on it: the result, whether the name is in the system after
/// it (its own or, where another has taken it, that one's), and how many payloads are still alive.
TEST_F(MessagingTest, EveryOperationFitsEveryState) {
    struct Case {
        CZantMsgQueue queue;
        CZantMsgQueue successor;
        const std::string name = queueName();

        int32_t open(CZantMsgQueue& opened, int oflag, bool unlinkFirst = true) const {
            return opened.Open(name.c_str(), O_RDWR | O_CREAT | oflag, 0600, 3, unlinkFirst);
        }
        int32_t make(char step) {
            CZantMsg msg(517);
            load(msg, "left behind");
            switch (step) {
            case 'o':
            case 'O':
                return open(queue, step == 'O' ? O_NONBLOCK : 0) + queue.Send(&msg, 0);
            case 'n':
                queue.DropName();
                return 0;
            case 'd':
                return queue.ClearQueue();
            case 'c':
                return queue.Close();
            case 'u':
                return queue.Unlink();
            case 'f':
                return open(queue, O_EXCL, false) == -1418 ? 0 : 1;
            default:
                return open(successor, 0) + successor.GetNrOfMsgsInQueue();
            }
        }
        bool nameExists() const {
            const ScopedFd found(mq_open(name.c_str(), O_RDONLY));
            return static_cast<bool>(found);
        }
    };
    // (o)pen, (O)pen not blocking, (n)ameless, (d)rained, (c)losed, (u)nlinked, (s)ucceeded in its
    // name, (f)ailed to open. Then: Close, Unlink, DropName, Open anew, Open failing, the end.
    const struct {
        const char* steps;
        const char* afterOperations;
    } rows[] = {
        {"", "-1411 n 0, -1417 n 0, - n 0, 0 n 0, -1418 n 0, - n 0"},
        {"sf", "-1411 y 0, 0 n 0, - y 0, 0 y 0, -1418 y 0, - y 0"},
        {"o", "0 y 1, 0 n 0, - n 1, 0 n 0, -1418 n 0, - n 0"},
        {"O", "0 y 1, 0 n 0, - n 1, 0 n 0, -1418 n 0, - n 0"},
        {"os", "0 y 0, -1424 y 0, - y 1, 0 y 0, -1418 y 0, - y 0"},
        {"on", "0 n 0, 0 n 0, - n 1, 0 n 0, -1418 n 0, - n 0"},
        {"ons", "0 y 0, 0 y 0, - y 1, 0 y 0, -1418 y 0, - y 0"},
        {"oc", "-1410 y 1, 0 n 0, - y 1, 0 n 0, -1418 n 0, - n 0"},
        {"odcs", "-1410 y 0, -1424 y 0, - y 0, 0 y 0, -1418 y 0, - y 0"},
        {"oncs", "-1410 y 0, -1424 y 0, - y 0, 0 y 0, -1418 y 0, - y 0"},
        {"ou", "-1410 n 0, -1424 n 0, - n 0, 0 n 0, -1418 n 0, - n 0"},
        {"ocus", "-1410 y 0, -1424 y 0, - y 0, 0 y 0, -1418 y 0, - y 0"},
    };
    const std::string anew = queueName("_anew");
    const auto operate = [&anew](int operation, CZantMsgQueue& queue) -> std::string {
        int32_t result = 0;
        switch (operation) {
        case 0:
            return std::to_string(queue.Close());
        case 1:
            return std::to_string(queue.Unlink());
        case 2:
            queue.DropName();
            return "-";
        case 3:
            result = queue.Open(anew.c_str(), O_RDWR | O_CREAT, 0600, 2, true);
            EXPECT_EQ(CZantMsgQueue::GetQueueNameByHandle(queue.handle), anew);
            EXPECT_EQ(queue.GetNrOfMsgsInQueue(), 0);
            return std::to_string(result);
        case 4:
            result = queue.Open(anew.c_str(), O_RDWR, 0600, 2, true);
            EXPECT_EQ(queue.handle, -1);
            return std::to_string(result);
        default:
            queue.~CZantMsgQueue(), new (&queue) CZantMsgQueue;
            return "-";
        }
    };
    for (const auto& row : rows) {
        std::istringstream expected(row.afterOperations);
        for (int operation = 0; operation < 6; ++operation) {
            std::string after;
            std::getline(expected >> std::ws, after, ',');
            SCOPED_TRACE(std::string(row.steps) + ": " + after);
            {
                Case made;
                for (const char* step = row.steps; *step != '\0'; ++step)
                    ASSERT_EQ(made.make(*step), 0);
                const std::string code = operate(operation, made.queue);
                EXPECT_EQ(code + (made.nameExists() ? " y " : " n ") +
                              std::to_string(CountedPayload::alive),
                          after);
                const bool isSucceeded = made.successor.handle != -1;
                const bool isThere = made.nameExists();
                EXPECT_EQ(made.successor.Unlink(), !isSucceeded ? -1417 : isThere ? 0 : -1424);
            }
            EXPECT_EQ(CountedPayload::alive, 0);
            for (const std::string& name : {queueName(), anew})
                EXPECT_EQ(mq_unlink(name.c_str()), -1) << "stays behind";
        }
    }
}

TEST_F(MessagingTest, WhatWaitsInAClosedQueueIsThereForWhoOpensItAgain) {
    CZantMsgQueue queue;
    ASSERT_EQ(open(queue), 0);
    CZantMsg msg(517);
    load(msg, "for later");
    ASSERT_EQ(queue.Send(&msg, 0), 0);
    for (const int more : {0, O_CREAT}) {
        ASSERT_EQ(queue.Close(), 0);
        ASSERT_EQ(queue.Open(queueName().c_str(), O_RDWR | O_NONBLOCK | more, 0600, 3, false), 0);
        EXPECT_EQ(queue.GetNrOfMsgsInQueue(), 1);
    }
    queue.DropName();
    const pid_t child = fork();
    if (child == 0) {
        queue.Close();
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    EXPECT_EQ(queue.GetNrOfMsgsInQueue(), 1) << "it is the parent's";
}

/// A name can go without a descriptor to read what waits.
TEST_F(MessagingTest, UnlinkNeedsNoDescriptor) {
    CZantMsgQueue queue;
    ASSERT_EQ(open(queue), 0);
    ASSERT_EQ(queue.Close(), 0);
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(queue.Unlink(), 0);
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(queue.Unlink(), -1424);
    EXPECT_EQ(errno, ENOENT);
}

/// Whoever closes last frees what no name leads to any more.
TEST_F(MessagingTest, UnlinkedQueueLivesAsLongAsOneOfItsOpeners) {
    CZantMsgQueue keeper;
    CZantMsgQueue leaver;
    ASSERT_EQ(open(keeper), 0);
    ASSERT_EQ(leaver.Open(queueName().c_str(), O_RDWR, 0, 1, false), 0);
    keeper.DropName();
    CZantMsg msg(517);
    load(msg, "for the other");
    ASSERT_EQ(leaver.Send(&msg, 0), 0);
    EXPECT_EQ(leaver.Close(), 0);
    EXPECT_EQ(keeper.GetNrOfMsgsInQueue(), 1);
    EXPECT_EQ(keeper.Close(), 0);
    EXPECT_EQ(CountedPayload::alive, 0);
}

/// What comes from another process is freed however it is thrown away.
TEST_F(MessagingTest, SharedPayloadsThatNobodyHandlesAreFreed) {
    static std::vector<uint32_t> freed;
    freed.clear();
    CZantMsgQueue queue;
    queue.CarrySharedAddresses([](uint32_t address) { freed.push_back(address); });
    ASSERT_EQ(open(queue), 0);
    const auto arrives = [&queue](uint32_t address) {
        ZantMsgBody body{};
        body.signalPtr = address;
        ASSERT_EQ(mq_send(queue.handle, reinterpret_cast<char*>(&body), sizeof body, 0), 0);
    };
    for (const uint32_t address : {11u, 0u, 12u})
        arrives(address);
    CZantMsg msg;
    ASSERT_EQ(queue.Receive(&msg, 0), 0);
    queue.DropPayload(msg);
    queue.DropPayload(msg); // which has none any more
    CZantMsgQueue::DumpQueue(queue.handle);
    arrives(13);
    EXPECT_EQ(queue.Unlink(), 0);
    EXPECT_EQ(freed, (std::vector<uint32_t>{11, 12, 13}));
}

TEST_F(MessagingTest, QueueKeptInTheSystemLeavesTheRegistry) {
    int handle = 0;
    const std::string name = queueName("_kept");
    CZantMsgQueue::Terminate();
    {
        CZantMsgQueue queue;
        ASSERT_EQ(queue.Open(name.c_str(), O_RDWR | O_CREAT, 0600, 2, false), 0);
        handle = queue.handle;
        EXPECT_EQ(queue.Close(), 0);
        EXPECT_EQ(CZantMsgQueue::GetQueueObjPtrByHandle(handle), &queue) << "frozen";
        CZantMsgQueue::RemoveQueueFromGlobalMsgQueueList(&queue, handle);
        EXPECT_EQ(CZantMsgQueue::GetQueueNameByHandle(handle), name);
    }
    EXPECT_EQ(CZantMsgQueue::GetQueueObjPtrByHandle(handle), nullptr);
    CZantMsgQueue::Start();
    EXPECT_EQ(CZantMsgQueue::GetQueueNameByHandle(handle), "Unknown");
    EXPECT_EQ(mq_unlink(name.c_str()), 0);
}

/// A host may have closed its standard input: 0 stands for no handle.
TEST_F(MessagingTest, NoQueueHasTheHandleZero) {
    const ScopedFd before(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
    close(STDIN_FILENO);
    CZantMsgQueue queue;
    EXPECT_EQ(open(queue), 0);
    EXPECT_GT(queue.handle, 0);
    CZantMsg msg(517);
    EXPECT_EQ(CZantMsgQueue::Send(queue.handle, &msg, 0), 0);
    EXPECT_EQ(queue.Close(), 0);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "it stays closed";
    dup2(before.get(), STDIN_FILENO);
}

TEST_F(MessagingTest, HighHandlesWork) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit wanted = before;
    wanted.rlim_cur = std::max<rlim_t>(before.rlim_cur, 1200);
    if (setrlimit(RLIMIT_NOFILE, &wanted) != 0)
        GTEST_SKIP() << "ulimit -n does not allow 1200 descriptors";
    for (const int above : {349, 1024}) {
        std::vector<int> fillers;
        while (fillers.empty() || fillers.back() < above)
            fillers.push_back(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
        {
            CZantMsgQueue queue;
            ASSERT_EQ(open(queue), 0);
            ASSERT_GT(queue.handle, above);
            EXPECT_EQ(traced("Quick access array too small - 350 instead of"), 1);
            EXPECT_EQ(CZantMsgQueue::GetQueueObjPtrByHandle(queue.handle), &queue);
            EXPECT_EQ(queue.usleepOnQueue(1000), 0);
            CZantMsg msg(517);
            load(msg, "high");
            ASSERT_EQ(CZantMsgQueue::Send(queue.handle, &msg, 0), 0);
            EXPECT_EQ(queue.usleepOnQueue(1000000), 1);
            CZantMsg received;
            ASSERT_EQ(queue.ReceiveFromNonblockingQueue(&received, 0), 0);
            EXPECT_STREQ(static_cast<char*>(received.signalPtr), "high");
        }
        for (const int filler : fillers)
            close(filler);
    }
    setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(MessagingTest, ListingAndDumpShowWhatIsThere) {
    CZantMsgQueue queue;
    ASSERT_EQ(open(queue, "_listed", 4), 0);
    for (const unsigned long signal : {517UL, 518UL, 519UL}) {
        CZantMsg msg(signal);
        load(msg, "dumped");
        ASSERT_EQ(queue.Send(&msg, 0), 0);
    }
    CZantMsg msg;
    ASSERT_EQ(queue.Receive(&msg, 0), 0);
    CZantMsgQueue other;
    ASSERT_EQ(open(other, "_other", 3, O_RDWR | O_CREAT), 0);
    AddZantMsgQueueMshellCmds();
    screen.take();
    const std::string handle = std::to_string(queue.handle);
    const std::tuple<std::string, int, int> questions[] = {
        {"", 2, 0}, {" 0", 2, 0}, {handle, 0, -1700}, {" " + handle, 1, 0}, {" x", 0, -1703}};
    for (const auto& [parameter, rows, result] : questions) {
        EXPECT_EQ(mshell.ProcessMshellCmd(("m_queuelist" + parameter).c_str()), result);
        const std::string lines = screen.take();
        EXPECT_EQ(lines.find(queueName("_listed")) != std::string::npos, rows > 0) << parameter;
        EXPECT_EQ(lines.find("| BLOCK |") != std::string::npos, rows > 1) << parameter;
    }
    CZantMsgQueue::ListGlobalMsgQueueList(queue.handle);
    char row[200];
    snprintf(row, sizeof row,
             "%6d |    4 |         3 |         2 | NONBL |      517 |       1 | %s\n",
             queue.handle.load(), queueName("_listed").c_str());
    const std::string rule = "-------+------+-----------+-----------+-------+----------+---------+"
                             "------------------------------------\n";
    EXPECT_EQ(
        screen.take(),
        "List of queues\nhandle | size | max. used | cur. used | block | last msg | nr read | "
        "name\n" +
            rule + row + rule);

    CZantMsgQueue::DumpQueue(queue.handle);
    EXPECT_EQ(screen.take(),
              "CZantMsgQueue::DumpQueue - Msg read from queue - nr: 1  signalname: 518\n"
              "CZantMsgQueue::DumpQueue - Msg read from queue - nr: 2  signalname: 519\n");
    msg.FreeSignal();
    EXPECT_EQ(CountedPayload::alive, 0);
    CZantMsgQueue::DumpQueue(-5);
    CZantMsgQueue::DumpQueue(STDOUT_FILENO);
    EXPECT_EQ(screen.take(), "");
}
