#include "debug/shell/mshell.h"
#include "messaging/queue/zant_msg_queue_mshell.h"
#include "messaging_fixture.h"
#include "util/scoped_handles.h"

#include <algorithm>
#include <fstream>
#include <random>
#include <sstream>
#include <sys/resource.h>
#include <sys/wait.h>
#include <vector>

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
