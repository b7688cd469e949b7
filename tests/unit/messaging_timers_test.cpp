#include "messaging/observer/observable_callback_all.h"
#include "messaging/timer/time_out_server.h"
#include "messaging/timer/timer.h"
#include "messaging_fixture.h"
#include "support/wait_until.h"

#include <deque>
#include <memory>
#include <vector>

namespace {

class TimersTest : public MessagingTest {
protected:
    TimersTest() {
        EXPECT_EQ(open(queue), 0);
        TimeOutServer::instance().StartThread("TimeOutServer", 0, 0);
    }
    ~TimersTest() override { TimeOutServer::instance().StopThreadAndWait(); }

    /// The next expiry message.
    CZantMsg next() {
        CZantMsg msg;
        EXPECT_EQ(queue.usleepOnQueue(20000000), 1);
        EXPECT_EQ(queue.Receive(&msg, 0), 0);
        return msg;
    }

    CZantMsgQueue queue;
};

class Observer : public CObserverCallbackFunction {
public:
    void CallbackFunction(CZantMsg* msg) override {
        seen.push_back(std::to_string(msg->param2) + "/" + std::to_string(msg->param3) + "/" +
                       (msg->signalPtr ? static_cast<char*>(msg->signalPtr) : "-"));
        payload = msg->signalPtr;
        if (leaves)
            leaves->UnregisterCallbackFunction(*this, 0);
    }
    std::vector<std::string> seen;
    void* payload = nullptr;
    CObservableCallbackFunction* leaves = nullptr;
};

} // namespace

TEST_F(TimersTest, AStoppedWatchShowsOneTimeInEveryUnit) {
    Timer watch;
    watch.start();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    watch.stop();
    const double microseconds = watch.getElapsedTimeInMicroSec();
    EXPECT_GE(microseconds, 2000);
    EXPECT_DOUBLE_EQ(watch.getElapsedTimeInMilliSec(), microseconds / 1e3);
    EXPECT_DOUBLE_EQ(watch.getElapsedTimeInSec(), microseconds / 1e6);
}

TEST_F(TimersTest, OnlyTheMessageOfTheCurrentStartIsValid) {
    TimeOutTimer timer(0, 600, queue.handle, 77);
    timer.StartTimer();
    EXPECT_TRUE(timer.TimerIsRunning());
    CZantMsg msg = next();
    EXPECT_EQ(msg.signalId, 600U);
    EXPECT_EQ(msg.param2, 77);
    EXPECT_EQ(static_cast<uint32_t>(msg.responseInfo), timer.GetTimerId());
    EXPECT_TRUE(TimerIsValid(&msg));
    EXPECT_FALSE(timer.TimerIsRunning());

    timer.StartTimer();
    timer.StopTimer();
    timer.StartTimer(0, 601, queue.handle, 78);
    const CZantMsg stale = next();
    const CZantMsg fresh = next();
    const CZantMsg& old = stale.signalId == 600 ? stale : fresh;
    const CZantMsg& current = stale.signalId == 600 ? fresh : stale;
    EXPECT_FALSE(TimerIsValid(&old));
    EXPECT_TRUE(TimerIsValid(&current));

    CZantMsg nobodys(600);
    EXPECT_FALSE(TimerIsValid(&nobodys));
    EXPECT_FALSE(TimerIsValid(nullptr));
    nobodys.responseInfo2 = 0x12345678;
    EXPECT_FALSE(TimerIsValid(&nobodys));
}

TEST_F(TimersTest, NoTimerForAQueueThatHoldsItsSenders) {
    CZantMsgQueue blocking;
    ASSERT_EQ(open(blocking, "_blocking", 1, O_RDWR | O_CREAT), 0);
    TimeOutTimer timer(0, 600, blocking.handle, 0);
    timer.StartTimer();
    EXPECT_FALSE(timer.TimerIsRunning());
    EXPECT_TRUE(TimeOutServer::instance().IsEmpty());
    EXPECT_EQ(traced("Timer destination queue blocks"), 1);
}

TEST_F(TimersTest, MessagesOutliveTimerAndQueueHarmlessly) {
    auto timer = std::make_unique<TimeOutTimer>(0, 600, queue.handle, 0);
    timer->StartTimer();
    timer.reset();
    const CZantMsg orphan = next();
    EXPECT_FALSE(TimerIsValid(&orphan));

    CZantMsgQueue gone;
    ASSERT_EQ(open(gone, "_gone"), 0);
    TimeOutTimer toNowhere(0, 600, gone.handle, 0);
    toNowhere.StartTimer();
    gone.Unlink();
    EXPECT_TRUE(support::waitUntil([] { return TimeOutServer::instance().IsEmpty(); }));

    TimeOutTimer noQueue(0, 600, 0, 0);
    noQueue.StartTimer();
    EXPECT_FALSE(noQueue.TimerIsRunning());
    EXPECT_TRUE(TimeOutServer::instance().IsEmpty());
    EXPECT_EQ(traced("Timer destination queue not set"), 1);
}

TEST_F(MessagingTest, TimersAreListedByTheirDeadlines) {
    TimeOutServer server;
    const double expiries[] = {5000, 9000, 1000, 9000, 0.0 / 0.0, 7000};
    std::deque<TimeOutTimer> timers;
    int info = 0;
    for (const double expiry : expiries) {
        timers.emplace_back(expiry, 600, 5, info++);
        timers.back().StartMeasurement();
        server.AddTimer(timers.back());
        while (timers.back().GetElapsedTimeInMicroSec() < 2) {
        } // the same time from a later start is due later
    }
    for (const int expected : {4, 2, 0, 5, 1, 3}) {
        EXPECT_EQ(server.GetEarliestTimer().GetAddExpiryInfo(), expected);
        server.PopTimer();
    }
    EXPECT_TRUE(server.IsEmpty());
    server.PopTimer();

    TimeOutTimer same(1000, 600, 5, 1);
    same.StartMeasurement();
    server.AddTimer(same);
    same.SetTimer(1000, 600, 5, 2);
    server.AddTimer(same);
    EXPECT_EQ(server.GetEarliestTimer().GetAddExpiryInfo(), 2) << "the newer of equals";

    TimeOutTimer longer(2000, 600, 5, 3);
    longer.StartMeasurement();
    server.AddTimer(longer);
    server.SortTimer();
    EXPECT_EQ(server.GetEarliestTimer().GetAddExpiryInfo(), 3) << "sorted the other way round";
    server.AddTimer(same);
    while (!server.IsEmpty())
        server.PopTimer();
}

TEST_F(MessagingTest, QueueObserversGetWhatTheyRegisteredFor) {
    CZantMsgQueue queues[3];
    CZantMsgQueue blocking;
    ASSERT_EQ(open(blocking, "_blocking", 1, O_RDWR | O_CREAT), 0);
    CObservableCallbackAll observable;
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(open(queues[i], std::to_string(i).c_str()), 0);
    EXPECT_EQ(observable.RegisterCallbackQueue(queues[0].handle, 10, 20, 0), 0);
    EXPECT_EQ(observable.RegisterCallbackQueue(queues[1].handle, 11, 21, 517), 0);
    EXPECT_EQ(observable.RegisterCallbackQueue(queues[2].handle, 12, 22, 517), 0);
    EXPECT_NE(observable.RegisterCallbackQueue(queues[2].handle, 0, 0, 517), 0);
    EXPECT_NE(observable.RegisterCallbackQueue(0, 0, 0, 0), 0);
    EXPECT_NE(observable.RegisterCallbackQueue(blocking.handle, 0, 0, 0), 0);
    EXPECT_NE(observable.RegisterCallbackQueue(-7, 0, 0, 0), 0);
    EXPECT_EQ(observable.CountObserversAll(517), 3);
    EXPECT_EQ(observable.CountObserversAll(518), 1);

    CZantMsg msg(517);
    load(msg, "to three");
    void* const original = msg.signalPtr;
    CZantMsg before(518);
    ASSERT_EQ(queues[0].Send(&before, 0), 0);
    EXPECT_EQ(observable.NotifyObserversAll(&msg), 0);
    CZantMsg first;
    ASSERT_EQ(queues[0].Receive(&first, 0), 0);
    EXPECT_EQ(first.signalId, 518U) << "nothing overtakes what was sent before";
    for (int i = 0; i < 3; ++i) {
        CZantMsg received;
        ASSERT_EQ(queues[i].Receive(&received, 0), 0);
        EXPECT_EQ(received.param2, 10 + i);
        EXPECT_EQ(received.param3, 20 + i);
        EXPECT_STREQ(static_cast<char*>(received.signalPtr), "to three");
        EXPECT_EQ(received.signalPtr == original, i == 2);
    }

    for (const unsigned long signal : {517UL, 518UL}) {
        CZantMsg sizeless(signal);
        sizeless.signalPtr = newBuffer("no size");
        sizeless.signalObj = new CountedPayload;
        observable.NotifyObserversWithCallbackQueue(&sizeless);
        EXPECT_EQ(queues[0].GetNrOfMsgsInQueue(), signal == 518 ? 1 : 0);
        EXPECT_EQ(sizeless.signalPtr, nullptr);
    }
    EXPECT_EQ(traced("==== FATAL ERROR ==== CObservableCallbackQueue::Signal size"), 1);
    queues[0].ClearQueue();

    observable.DeleteObserversWithCallbackQueue();
    load(msg, "to nobody");
    EXPECT_EQ(observable.NotifyObserversAll(&msg), 0);
    EXPECT_EQ(CountedPayload::alive, 0);
}

/// Two for all signals and one for one: each registration goes alone, by observer and signal.
TEST_F(MessagingTest, RegistrationsAreByObserverAndSignal) {
    CObservableCallbackAll observable;
    CZantMsgQueue queue;
    ASSERT_EQ(open(queue), 0);
    Observer one;
    Observer two;
    for (Observer* const observer : {&one, &two})
        ASSERT_EQ(observable.RegisterCallbackFunction(observer, 1, 2, 0), 0);
    ASSERT_EQ(observable.RegisterCallbackFunction(one, 3, 4, 517), 0);
    ASSERT_EQ(observable.RegisterCallbackQueue(queue.handle, 5, 6, 517), 0);
    EXPECT_EQ(observable.CountObserversWithCallbackFunction(517), 3);
    EXPECT_EQ(observable.CountObserversAll(517), 4);
    EXPECT_EQ(observable.CountObserversAll(518), 2);
    EXPECT_NE(observable.UnregisterCallbackFunction(two, 517), 0) << "not for this one alone";
    EXPECT_NE(observable.UnregisterCallbackQueue(queue.handle, 0), 0);
    EXPECT_EQ(observable.UnregisterCallbackFunction(one, 0), 0);
    EXPECT_TRUE(observable.AlreadyRegisteredWithCallbackFunction(one, 517));
    EXPECT_FALSE(observable.AlreadyRegisteredWithCallbackFunction(one, 0));
    CZantMsg msg(517);
    EXPECT_EQ(observable.NotifyObserversAll(&msg), 0);
    EXPECT_EQ(one.seen, std::vector<std::string>{"3/4/-"});
    EXPECT_EQ(two.seen, std::vector<std::string>{"1/2/-"});
    EXPECT_EQ(queue.GetNrOfMsgsInQueue(), 1);
    EXPECT_EQ(observable.UnregisterCallbackQueue(queue.handle, 517), 0);
    EXPECT_EQ(observable.CountObserversAll(517), 2);
    observable.DeleteObserversWithCallbackFunction();
    EXPECT_EQ(observable.CountObserversAll(517), 0);
}

TEST_F(MessagingTest, FunctionObserversMayLeaveWhileNotified) {
    CObservableCallbackAll observable;
    Observer first;
    Observer second;
    ASSERT_EQ(observable.RegisterCallbackFunction(first, 1, 2, 0), 0);
    ASSERT_EQ(observable.RegisterCallbackFunction(&second, 3, 4, 0), 0);
    EXPECT_EQ(screen.take(), "");
    EXPECT_NE(observable.RegisterCallbackFunction(first, 1, 2, 0), 0);
    EXPECT_EQ(traced("Function already registered"), 1);
    EXPECT_NE(observable.RegisterCallbackFunction(nullptr, 1, 2, 0), 0);
    EXPECT_EQ(traced("No observer given"), 1);
    first.leaves = &observable;
    CZantMsg msg(517);
    load(msg, "both");
    observable.NotifyObserversAll(&msg);
    load(msg, "one");
    observable.NotifyObserversAll(&msg);
    EXPECT_EQ(first.seen, std::vector<std::string>{"1/2/both"});
    EXPECT_EQ(second.seen, (std::vector<std::string>{"3/4/both", "3/4/one"}));
    EXPECT_EQ(msg.signalPtr, nullptr);

    CZantMsgQueue queue;
    ASSERT_EQ(open(queue), 0);
    ASSERT_EQ(observable.RegisterCallbackQueue(queue.handle, 5, 6, 517), 0);
    load(msg, "object and queue");
    EXPECT_EQ(observable.NotifyObserversAll(&msg), 0);
    CZantMsg received;
    ASSERT_EQ(queue.Receive(&received, 0), 0);
    EXPECT_STREQ(static_cast<char*>(received.signalPtr), "object and queue");
    EXPECT_NE(received.signalPtr, second.payload) << "each its own copy";
}
