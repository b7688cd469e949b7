#include "debug/shell/mshell.h"
#include "debug/trace/zant_trace_thread.h"
#include "messaging/queue_thread/thread_object_with_queue.h"
#include "messaging/thread/thread_object_blocking_wait.h"
#include "messaging/thread/thread_object_mshell.h"
#include "messaging_fixture.h"
#include "support/wait_until.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <vector>

using support::waitUntil;

namespace {

class Looper : public CThreadObject {
public:
    ~Looper() override { StopThreadAndWait(); }
    void ThreadWorkFunction() override {
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        ++entered;
        while (!stopRequested && !leave)
            usleep(200);
    }
    sigset_t blocked{};
    std::atomic<int> entered{0};
    std::atomic<bool> leave{false};
};

class Recorder : public CThreadObjectWithQueue {
public:
    ~Recorder() override { StopThreadAndWait(); }
    void ProcessZantMsg(CZantMsg* msg) override {
        if (msg->signalId == thrown)
            throw thrown;
        msg->FreeSignal();
        if (stopSelf)
            StopThreadAndWait();
        while (hold)
            usleep(200);
        ++handled;
    }
    static constexpr uint32_t thrown = 518;
    int32_t init(int room = 10) { return Init("/zant_test_rec_", room, 0600, false, true); }
    int32_t post(unsigned long signal = 517) {
        CZantMsg msg(signal);
        load(msg, "posted");
        return SendCmd(&msg);
    }
    bool mutexIsFree() {
        return pthread_mutex_trylock(m_mutex.handle()) == 0 &&
               pthread_mutex_unlock(m_mutex.handle()) == 0;
    }
    std::atomic<int> handled{0};
    std::atomic<bool> hold{false};
    std::atomic<bool> stopSelf{false};
};

/// Sits in one blocking call after another, with traces in between.
class Blocker : public CThreadObjectBlockingWait {
public:
    Blocker(CZantMsgQueue& queue, bool sends, bool receives)
        : m_queue(queue), m_sends(sends), m_receives(receives) {}
    ~Blocker() override { StopThreadAndWait(); }
    void ThreadWorkFunction() override {
        for (;;) {
            ZANT_TRACE(TRACEUNIT_SHELL, TRACELEVEL_ERROR, "at work\n");
            CZantMsg msg(517);
            if (m_sends) {
                load(msg, "from a thread that is cancelled");
                msg.SendMsg(m_queue.handle, 0);
            }
            if (m_receives)
                m_queue.Receive(&msg, 0);
            ++rounds;
            FormattedStringToStdout("round\n");
            usleep(10);
        }
    }
    std::atomic<int> rounds{0};

private:
    CZantMsgQueue& m_queue;
    const bool m_sends;
    const bool m_receives;
};

class Sleeper : public CThreadObjectBlockingWait {
public:
    ~Sleeper() override { StopThreadAndWait(); }
    void ThreadWorkFunction() override { pause(); }
};

class Thrower : public Looper {
public:
    ~Thrower() override { StopThreadAndWait(); }
    void ThreadWorkFunction() override { throw std::runtime_error("out of the work function"); }
};

auto nrOfThreads() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

std::string listing(support::StdoutCapture& screen, long select) {
    screen.take();
    CThreadObject::ListGlobalThreadObjectList(select);
    return screen.take();
}

/// What a static object of a program may do while the program is loaded.
const bool worksAtLoad = [] {
    CZantMsgQueue queue;
    const std::string name = "/zant_test_at_load_" + std::to_string(getpid());
    Looper looper;
    const bool works = queue.Open(name.c_str(), O_RDWR | O_CREAT, 0600, 2, true) == 0 &&
                       looper.StartThread("at load", 0, 0) == 0 &&
                       CZantMsgQueue::GetQueueNameByHandle(queue.handle) == name;
    const auto threads = nrOfThreads();
    CThreadObject::StopAllThreads(); // the process's first among them
    CThreadObject::Start();
    return works && looper.entered == 1 && waitUntil([&] { return nrOfThreads() < threads; });
}();

} // namespace

class ThreadsTest : public MessagingTest {
protected:
    ~ThreadsTest() override { CThreadObject::Start(); }

    bool leavesTheList(const std::string& name) {
        return waitUntil([&] { return listing(screen, 0).find(name) == std::string::npos; });
    }
};

TEST_F(ThreadsTest, ThreadsAndQueuesWorkWhileTheProgramIsLoaded) {
    EXPECT_TRUE(worksAtLoad);
}

TEST_F(ThreadsTest, ThreadIsStartedOnceAndMayStartAgain) {
    Looper looper;
    looper.StopThreadAndWait();
    EXPECT_EQ(looper.StartThread("looper", 65536, 1000), 0);
    EXPECT_EQ(looper.StartThread("again", 0, 0), 0);
    const std::string traces = screen.take();
    EXPECT_NE(traces.find("Thread is already running - name=looper"), std::string::npos);
    EXPECT_NE(listing(screen, 0).find(" |    1 |       0 | looper\n"), std::string::npos);
    looper.StopThreadAndWait();
    EXPECT_EQ(looper.entered, 1);
    for (const int hosts : {SIGINT, SIGTERM, SIGALRM, SIGCHLD, SIGUSR1, SIGPROF, SIGRTMIN})
        EXPECT_EQ(sigismember(&looper.blocked, hosts), 1) << strsignal(hosts);
    for (const int own : {SIGSEGV, SIGABRT, SIGFPE})
        EXPECT_EQ(sigismember(&looper.blocked, own), 0) << strsignal(own);
    sigset_t ours{};
    pthread_sigmask(SIG_SETMASK, nullptr, &ours);
    EXPECT_EQ(sigismember(&ours, SIGINT), 0) << "the starter's stay";
    EXPECT_EQ(listing(screen, 0).find("looper"), std::string::npos);
    EXPECT_NE(traces.find("SCHED_FIFO priority 1000 refused"), std::string::npos);
    EXPECT_EQ(looper.StartThread("looper", 1, 1000), 0) << "a stack too small is only traced";
    const std::string laterTraces = screen.take();
    EXPECT_NE(laterTraces.find("Set stacksize for thread FAILED"), std::string::npos);
    EXPECT_EQ(laterTraces.find("SCHED_FIFO priority"), std::string::npos) << "said once";
    looper.StopThreadAndWait();
    EXPECT_EQ(looper.entered, 2);
}

TEST_F(ThreadsTest, ThreadThatEndsByItselfLeavesNothing) {
    const auto before = nrOfThreads();
    for (int i = 0; i < 50; ++i) {
        Looper looper;
        looper.leave = true;
        ASSERT_EQ(looper.StartThread("short", 0, 0), 0);
        ASSERT_TRUE(i % 2 == 0 || leavesTheList("short"));
    }
    Thrower thrower;
    thrower.StartThread("thrower", 0, 0);
    thrower.StopThreadAndWait();
    EXPECT_EQ(traced("out of the work function"), 1);
    EXPECT_TRUE(waitUntil([&] { return nrOfThreads() <= before; }));
}

TEST_F(ThreadsTest, AHandlerThatThrowsLosesItsMessageOnly) {
    Recorder recorder;
    ASSERT_EQ(recorder.init(), 0);
    ASSERT_EQ(recorder.StartThread("recorder", 0, 0), 0);
    recorder.post(Recorder::thrown);
    recorder.post();
    EXPECT_TRUE(waitUntil([&] { return recorder.handled == 1; }));
    EXPECT_EQ(traced("unknown exception"), 1);
    EXPECT_TRUE(recorder.mutexIsFree());
}

TEST_F(ThreadsTest, StopRestartAndStopAllRace) {
    zantTrace.SetTraceOnAll(TRACELEVEL_NO_TRACE);
    CZantMsgQueue queue;
    ASSERT_EQ(open(queue), 0);
    const auto before = nrOfThreads();
    {
        Looper looper;
        Recorder recorder;
        ASSERT_EQ(recorder.init(2), 0);
        Sleeper sleeper;
        std::atomic<int> accepted{0};
        CThreadObject* const objects[] = {&looper, &recorder, &sleeper};
        std::vector<std::thread> hands;
        for (unsigned hand = 0; hand < 4; ++hand)
            hands.emplace_back([&, hand] {
                std::mt19937 random(hand);
                for (int i = 0; i < 150; ++i) {
                    CThreadObject& object = *objects[random() % 3];
                    switch (random() % 6) {
                    case 0:
                        object.StopThread();
                        break;
                    case 1:
                        object.StopThreadAndWait();
                        break;
                    case 2: // mostly into a full queue
                        for (int sent = 0; sent < 20; ++sent)
                            accepted += recorder.post() == 0 ? 1 : 0;
                        break;
                    case 3: {
                        Looper passing;
                        passing.leave = random() % 2 == 0;
                        passing.StartThread("passing", 0, 0);
                        break;
                    }
                    case 4:
                        if (i % 10 == 0)
                            CThreadObject::StopAllThreads();
                        CThreadObject::Start();
                        break;
                    default:
                        object.StartThread("raced", 0, 0);
                    }
                }
            });
        for (std::thread& hand : hands)
            hand.join();
        for (CThreadObject* const object : objects) {
            object->StopThreadAndWait();
            EXPECT_EQ(object->StartThread("last", 0, 0), 0);
        }
        EXPECT_TRUE(waitUntil([&] { return looper.entered > 0; }));
        ASSERT_TRUE(waitUntil([&] { return recorder.post() == 0; })) << "it reads again";
        EXPECT_TRUE(waitUntil([&] { return recorder.handled > 0; }));
        EXPECT_LE(recorder.handled, accepted + 1);
    }
    EXPECT_TRUE(waitUntil([&] { return nrOfThreads() <= before; }));
}

TEST_F(ThreadsTest, StopAllStopsInOrderAndLeavesItsCaller) {
    zantTrace.SetTraceOn(TRACEUNIT_THREAD, TRACELEVEL_INFO);
    Looper first;
    Looper second;
    first.StartThread("first", 0, 0);
    second.StartThread("second", 0, 0);
    screen.take();
    CThreadObject::StopAllThreads();
    const std::string lines = screen.take();
    const size_t atFirst = lines.find("++++ Stopping thread first ++++");
    const size_t atSecond = lines.find("++++ Stopping thread second ++++");
    EXPECT_NE(atFirst, std::string::npos);
    EXPECT_NE(atSecond, std::string::npos);
    EXPECT_LT(atFirst, atSecond);
    EXPECT_NE(listing(screen, 0).find("first"), std::string::npos) << "the list is frozen";
    CThreadObject::StopAllThreads();
    EXPECT_EQ(traced("++++ Stopping thread"), 0) << "they have ended";
    CThreadObject::Start();

    class StopsAll : public CThreadObject {
    public:
        ~StopsAll() override { StopThreadAndWait(); }
        void ThreadWorkFunction() override { StopAllThreads(); }
    } caller;
    caller.StartThread("caller", 0, 0);
    caller.StopThreadAndWait();
}

TEST_F(ThreadsTest, QueueThreadHandlesWhatCameBeforeTheStop) {
    Recorder recorder;
    ASSERT_EQ(recorder.init(), 0);
    EXPECT_NE(recorder.init(-1), 0) << "it has no queue any more";
    EXPECT_EQ(recorder.StartThread("early", 0, 0), -1111);
    EXPECT_EQ(recorder.post(), -1110);
    EXPECT_EQ(recorder.post(SIG_ID_STOP_THREAD), 0);
    EXPECT_EQ(CountedPayload::alive, 0);
    ASSERT_EQ(recorder.init(), 0);
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(recorder.post(), 0);
    ASSERT_EQ(recorder.post(SIG_ID_STOP_THREAD), 0);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(recorder.post(), 0);
    ASSERT_EQ(recorder.StartThread("recorder", 0, 0), 0);
    ASSERT_TRUE(waitUntil([&] { return CountedPayload::alive == 0; }));
    EXPECT_EQ(recorder.handled, 4);
    EXPECT_EQ(recorder.GetNrOfProcessedMsgs(), 4U);
    ASSERT_TRUE(leavesTheList("recorder"));

    // A stop that nobody needed does not end the next run, nor one before there was any the first.
    Recorder stoppedBefore;
    ASSERT_EQ(stoppedBefore.init(), 0);
    stoppedBefore.StopThread();
    stoppedBefore.StopThreadAndWait();
    ASSERT_EQ(stoppedBefore.StartThread("before", 0, 0), 0);
    ASSERT_EQ(stoppedBefore.post(), 0);
    EXPECT_TRUE(waitUntil([&] { return stoppedBefore.handled == 1; }));
    recorder.StopThread();
    recorder.StopThreadAndWait();
    ASSERT_EQ(recorder.StartThread("recorder", 0, 0), 0);
    ASSERT_EQ(recorder.post(), 0);
    EXPECT_TRUE(waitUntil([&] { return recorder.handled == 5; }));
}

TEST_F(ThreadsTest, StopToAFullQueueIsNoError) {
    Recorder recorder;
    ASSERT_EQ(recorder.init(2), 0);
    recorder.hold = true;
    ASSERT_EQ(recorder.StartThread("full", 0, 0), 0);
    while (recorder.post() == 0 || recorder.mutexIsFree()) {
    }
    traced("");
    recorder.StopThread();
    EXPECT_EQ(traced("FAILED"), 0);
    EXPECT_EQ(recorder.post(), -1421) << "as before";
    recorder.hold = false;
    recorder.StopThreadAndWait();
    EXPECT_EQ(recorder.handled, 1);
}

TEST_F(ThreadsTest, QueueOfAKilledProcessIsGone) {
    Recorder recorder;
    const auto address = std::to_string(reinterpret_cast<intptr_t>(static_cast<void*>(&recorder)));
    const std::string name = "/zant_test_rec_" + address;
    const pid_t child = fork();
    if (child == 0) {
        if (recorder.init() == 0 && recorder.QueueName() == name)
            raise(SIGKILL);
        _exit(1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(mq_unlink(name.c_str()), -1) << "it was left behind";
}

TEST_F(ThreadsTest, QueueThreadMayAskItselfToEnd) {
    Recorder recorder;
    ASSERT_EQ(recorder.init(), 0);
    recorder.stopSelf = true;
    ASSERT_EQ(recorder.StartThread("itself", 0, 0), 0);
    ASSERT_EQ(recorder.post(), 0);
    ASSERT_TRUE(leavesTheList("itself"));
    EXPECT_EQ(recorder.handled, 1);
}

TEST_F(ThreadsTest, MutexIsHeldWhileHandlingAndOnlyThen) {
    Recorder recorder;
    ASSERT_EQ(recorder.init(), 0);
    ASSERT_EQ(recorder.StartThread("held", 0, 0), 0);
    EXPECT_TRUE(waitUntil([&] { return recorder.mutexIsFree(); })) << "it only waits";
    recorder.hold = true;
    ASSERT_EQ(recorder.post(), 0);
    EXPECT_TRUE(waitUntil([&] { return !recorder.mutexIsFree(); }));
    recorder.hold = false;
    EXPECT_TRUE(waitUntil([&] { return recorder.mutexIsFree(); }));
}

TEST_F(ThreadsTest, CancelledThreadLosesNoLockAndNoPayload) {
    CZantMsgQueue queue;
    ASSERT_EQ(open(queue, "", 3, O_RDWR | O_CREAT), 0);
    for (int i = 0; i < 60; ++i) {
        Blocker blocker(queue, true, true);
        ASSERT_EQ(blocker.StartThread("blocker", 0, 0), 0);
        ASSERT_TRUE(waitUntil([&] { return blocker.rounds > i % 3; }));
        if (i % 2 == 0)
            blocker.StopThread();
    }
    EXPECT_EQ(queue.ClearQueue(), 0);
    EXPECT_EQ(CountedPayload::alive, 0);
    screen.take();
    ZANT_TRACE(TRACEUNIT_SHELL, TRACELEVEL_ERROR, "still tracing\n");
    EXPECT_EQ(traced("still tracing"), 1);

    // Held by a full queue, and by an empty one.
    for (const bool sending : {true, false}) {
        Blocker stuck(queue, sending, !sending);
        ASSERT_EQ(stuck.StartThread("stuck", 0, 0), 0);
        ASSERT_TRUE(waitUntil([&] { return queue.GetNrOfMsgsInQueue() == (sending ? 3 : 0); }));
        stuck.StopThreadAndWait();
        EXPECT_LE(stuck.rounds, 3) << "it was not held";
        EXPECT_EQ(CountedPayload::alive, sending ? 3 : 0);
    }
}

TEST_F(ThreadsTest, ObjectsAreListedOnceUntilTheyAreRemoved) {
    Looper looper;
    const std::string name = "listed by hand";
    ASSERT_EQ(looper.StartThread(name.c_str(), 0, 0), 0);
    looper.StopThreadAndWait();
    EXPECT_EQ(listing(screen, 0).find(name), std::string::npos);
    for (CThreadObject* const object : {&looper, &looper, static_cast<Looper*>(nullptr)})
        CThreadObject::AddThreadToGlobalThreadList(object);
    const std::string all = listing(screen, 0);
    EXPECT_NE(all.find(name), std::string::npos);
    EXPECT_EQ(all.find(name), all.rfind(name));
    CThreadObject::RemoveThreadFromGlobalThreadList(&looper);
    EXPECT_EQ(listing(screen, 0).find(name), std::string::npos);
}

TEST_F(ThreadsTest, ListingSelectsByEitherHandle) {
    Looper looper;
    Recorder recorder;
    ASSERT_EQ(recorder.init(), 0);
    looper.StartThread("by id", 0, 0);
    recorder.StartThread("not this", 0, 0);
    const std::string all = listing(screen, 0);
    const size_t row = all.find(" |    1 |       0 | by id");
    ASSERT_NE(row, std::string::npos);
    unsigned long handle = 0;
    long id = 0;
    const size_t start = all.rfind('\n', row) + 1;
    ASSERT_EQ(sscanf(all.c_str() + start, "0x%lx | %ld |", &handle, &id), 2);
    for (const long select : {static_cast<long>(handle), id}) {
        const std::string one = listing(screen, select);
        EXPECT_NE(one.find("by id"), std::string::npos);
        EXPECT_EQ(one.find("not this"), std::string::npos);
    }
    EXPECT_EQ(
        all.find("\nList of thread objects\n\nTypes: 1 = while-loop, 2 = msg-loop, 3 = msg-loop "
                 "with states\n\nThread-Addr | Thread-Id | Type | Msgs    | Name\n---"),
        0U);
    AddThreadObjectMshellCmds();
    char hexadecimal[40];
    snprintf(hexadecimal, sizeof hexadecimal, "m_threadlist 0x%lx", handle);
    for (const auto& [line, result, rows] :
         {std::tuple(std::string("m_threadlist"), 0, 2), std::tuple(std::string(hexadecimal), 0, 1),
          std::tuple("m_threadlist " + std::to_string(id), 0, 1),
          std::tuple(std::string("m_threadlist x"), -1703, 0)}) {
        EXPECT_EQ(mshell.ProcessMshellCmd(line.c_str()), result);
        const std::string shown = screen.take();
        EXPECT_EQ(shown.find("by id") != std::string::npos, rows > 0) << line;
        EXPECT_EQ(shown.find("not this") != std::string::npos, rows > 1) << line;
    }
    EXPECT_EQ(CThreadObject::GetThreadName(static_cast<unsigned>(handle)), "by id");
    EXPECT_EQ(CThreadObject::GetThreadName(1), "(unknown)");
}

/// Threads that go on while static objects go, and objects that go with running threads.
TEST_F(ThreadsTest, ProcessEndsUnderRunningThreads) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        zantTraceCtr = 0;
        static Recorder atExit;
        atExit.init();
        atExit.StartThread("at exit", 0, 0);
        static const int handle = [] {
            auto* const late = new CZantMsgQueue; // outlives the process's static objects
            open(*late, "_late");
            return late->handle.load();
        }();
        for (const bool direct : {true, false})
            std::thread([direct] {
                for (;;) {
                    traceSettings.zantTraceDirectPrint = direct;
                    ZANT_TRACE(TRACEUNIT_SHELL, TRACELEVEL_ERROR, "late\n");
                    if (direct) // one thread prints
                        zantTraceThread.PrintNextTrace();
                    zantTrace.SetTraceModeUseSyslog(0);
                    CZantMsg msg(517);
                    load(msg, "late");
                    CZantMsgQueue::Send(handle, &msg, 0);
                    CZantMsgQueue::GetQueueNameByHandle(handle);
                    CThreadObject::GetThreadName(1);
                    Looper looper;
                    looper.StartThread("late", 0, 0);
                }
            }).detach();
        waitUntil([] { return zantTraceCtr > 100; });
        CZantMsgQueue::Terminate();
        CThreadObject::Terminate();
        mq_unlink(queueName("_late").c_str());
        exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}
