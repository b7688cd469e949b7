// What the framework's messages cost, against the bare system calls; nanoseconds.

#include "bench_support.h"
#include "debug/trace/zant_trace_core.h"
#include "messaging/observer/observable_callback_queue.h"
#include "messaging/queue/zant_msg.h"
#include "messaging/queue_thread/thread_object_with_queue.h"

#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/select.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using bench::nanosecondsEach;

constexpr unsigned long pingSignal = 517;

// Many short turns: on a busy machine most of them are still left alone by other programs.
int turns() {
    return bench::share(1001);
}

std::string uniqueName(const char* suffix) {
    return "/zant_bench_" + std::to_string(getpid()) + suffix;
}

/// A queue that goes with the object; aborts when there is none.
void openOrAbort(CZantMsgQueue& queue, const char* suffix) {
    if (queue.Open(uniqueName(suffix).c_str(), O_RDWR | O_CREAT | O_NONBLOCK, 0600, 10, true) != 0)
        bench::fail("no queue: raise RLIMIT_MSGQUEUE (ulimit -q)");
}

/// Answers each message to the queue that it names.
class Echo : public CThreadObjectWithQueue {
public:
    Echo() {
        if (Init("/zant_bench_echo_", 10, 0600, false, true) != 0)
            exit(1);
        StartThread("echo", 0, 0);
    }
    ~Echo() override { StopThreadAndWait(); }
    void ProcessZantMsg(CZantMsg* msg) override { msg->SendMsgIndirect(0); }
};

void bareReceive(int handle, char* body) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(handle, &readable);
    select(handle + 1, &readable, nullptr, nullptr, nullptr);
    mq_receive(handle, body, 48, nullptr);
}

/// The processors that this program may use.
std::vector<size_t> processors() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    sched_getaffinity(0, sizeof allowed, &allowed);
    std::vector<size_t> found;
    for (size_t i = 0; i < CPU_SETSIZE; ++i)
        if (CPU_ISSET(i, &allowed))
            found.push_back(i);
    return found;
}

/// The threads that answer run on the processor `there`, the one that asks on `here`.
void roundTrip(const char* row, size_t here, size_t there) {
    bench::stayOn(there);
    Echo echo;
    CZantMsgQueue answers;
    openOrAbort(answers, "_answers");
    const auto ours = [&] {
        CZantMsg msg(pingSignal);
        msg.responseQueue = answers.handle;
        echo.SendCmd(&msg);
        answers.ReceiveFromNonblockingQueue(&msg, 0);
    };

    CZantMsgQueue bareRequests;
    CZantMsgQueue bareAnswers;
    openOrAbort(bareRequests, "_bare_requests");
    openOrAbort(bareAnswers, "_bare_answers");
    const int requests = bareRequests.handle;
    const int replies = bareAnswers.handle;
    std::thread bareEcho([requests, replies] {
        char body[48] = {};
        do {
            bareReceive(requests, body);
            mq_send(replies, body, sizeof body, 0);
        } while (body[0] != 1);
    });
    bench::stayOn(here);
    const auto bareOnce = [requests, replies](char first) {
        char body[48] = {first};
        mq_send(requests, body, sizeof body, 0);
        bareReceive(replies, body);
    };
    bench::compare(
        row, turns(), [&] { return nanosecondsEach(20, ours); },
        [&] { return nanosecondsEach(20, [&] { bareOnce(0); }); });
    bareOnce(1);
    bareEcho.join();
}

void roundTrips() {
    const std::vector<size_t> usable = processors();
    const auto both = [&] { // on a thread whose processors are its own
        roundTrip("message", usable.front(), usable.front());
        roundTrip("message_apart", usable.front(), usable.back());
    };
    std::thread(both).join();
}

void sameThread() {
    CZantMsgQueue queue;
    openOrAbort(queue, "_same");
    const int handle = queue.handle;
    const auto ours = [&] {
        CZantMsg msg(pingSignal);
        queue.Send(&msg, 0);
        queue.ReceiveFromNonblockingQueue(&msg, 0);
    };
    const auto bare = [handle] {
        char body[48] = {1};
        mq_send(handle, body, sizeof body, 0);
        bareReceive(handle, body);
    };
    bench::compare(
        "message_same_thread", turns(), [&] { return nanosecondsEach(100, ours); },
        [&] { return nanosecondsEach(100, bare); });
}

/// Nanoseconds that each of so many observers costs, told of a message with a payload.
bench::Side notify(int count) {
    auto queues = std::make_shared<std::vector<CZantMsgQueue>>(static_cast<size_t>(count));
    auto observable = std::make_shared<CObservableCallbackQueue>();
    for (int i = 0; i < count; ++i) {
        CZantMsgQueue& queue = (*queues)[static_cast<size_t>(i)];
        openOrAbort(queue, ("_" + std::to_string(i) + "_of_" + std::to_string(count)).c_str());
        observable->RegisterCallbackQueue(queue.handle, i, 0, 0);
    }
    return [queues, observable, count] {
        const double each = nanosecondsEach(5, [&] {
            CZantMsg msg(pingSignal);
            msg.signalPtr = ::operator new(64);
            msg.signalSize = 64;
            observable->NotifyObserversWithCallbackQueue(&msg);
        });
        for (auto& queue : *queues)
            queue.ClearQueue();
        return each / count;
    };
}

void observers() {
    bench::compare("observers", turns(), notify(16), notify(1));
}

/// Nanoseconds that a round trip to one queue thread takes from the machine, with so many threads
/// that send.
double senders(int count) {
    constexpr int trips = 800;
    Echo echo;
    const double taken = bench::seconds([&] {
        std::vector<std::thread> threads;
        for (int sender = 0; sender < count; ++sender)
            threads.emplace_back([&echo, sender, count] {
                CZantMsgQueue answers;
                openOrAbort(answers, ("_sender" + std::to_string(sender)).c_str());
                for (int i = 0; i < trips / count; ++i) {
                    CZantMsg msg(pingSignal);
                    msg.responseQueue = answers.handle;
                    if (echo.SendCmd(&msg) == 0)
                        answers.ReceiveFromNonblockingQueue(&msg, 0);
                }
            });
        for (std::thread& thread : threads)
            thread.join();
    });
    return taken / trips * 1e9;
}

void manySenders() {
    bench::compare(
        "senders", bench::share(101), [] { return senders(8); }, [] { return senders(1); });
}

} // namespace

int main(int argc, char** argv) {
    zantTrace.SetTraceOnAll(TRACELEVEL_WARNING);
    return bench::run(argc, argv,
                      {{"round_trip", roundTrips},
                       {"same_thread", sameThread},
                       {"observers", observers},
                       {"senders", manySenders}});
}
