// What the framework's messages cost, against the bare system calls. Both sides of a ratio run in
// one process, in turns, many times; the medians are compared. Prints JSON.

#include "bench_support.h"
#include "debug/trace/zant_trace_core.h"
#include "messaging/observer/observable_callback_queue.h"
#include "messaging/queue/zant_msg.h"
#include "messaging/queue_thread/thread_object_with_queue.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <sched.h>
#include <string>
#include <sys/select.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using bench::quantile;
using bench::stayOn;
using Clock = std::chrono::steady_clock;

// Many short turns: on a busy machine most of them are still left alone by other programs.
constexpr int turns = 1001;
constexpr unsigned long pingSignal = 517;

double nanoseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::nano>(duration).count();
}

double nanosecondsEach(int count, const std::function<void()>& what) {
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i)
        what();
    return nanoseconds(Clock::now() - start) / count;
}

struct Ratio {
    double ours;
    double bare;
};

/// Medians of both sides, measured in turns.
Ratio interleave(int count, const std::function<void()>& ours, const std::function<void()>& bare) {
    std::vector<double> oursEach;
    std::vector<double> bareEach;
    for (int turn = 0; turn < turns; ++turn) {
        oursEach.push_back(nanosecondsEach(count, ours));
        bareEach.push_back(nanosecondsEach(count, bare));
    }
    return {quantile(oursEach, 0.5), quantile(bareEach, 0.5)};
}

std::string uniqueName(const char* suffix) {
    return "/zant_bench_" + std::to_string(getpid()) + suffix;
}

/// A queue that goes with the object; aborts when there is none.
void openOrAbort(CZantMsgQueue& queue, const char* suffix) {
    if (queue.Open(uniqueName(suffix).c_str(), O_RDWR | O_CREAT | O_NONBLOCK, 0600, 10, true) !=
        0) {
        fprintf(stderr, "no queue: raise RLIMIT_MSGQUEUE (ulimit -q)\n");
        exit(1);
    }
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
void roundTrip(const char* name, size_t here, size_t there) {
    stayOn(there);
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
    stayOn(here);
    const auto bareOnce = [requests, replies](char first) {
        char body[48] = {first};
        mq_send(requests, body, sizeof body, 0);
        bareReceive(replies, body);
    };
    const Ratio ratio = interleave(20, ours, [&] { bareOnce(0); });
    bareOnce(1);
    bareEcho.join();
    printf("  \"%s\": {\"ours_ns\": %.0f, \"bare_ns\": %.0f},\n", name, ratio.ours, ratio.bare);
}

void sameThread() {
    CZantMsgQueue queue;
    openOrAbort(queue, "_same");
    const int handle = queue.handle;
    const Ratio ratio = interleave(
        100,
        [&] {
            CZantMsg msg(pingSignal);
            queue.Send(&msg, 0);
            queue.ReceiveFromNonblockingQueue(&msg, 0);
        },
        [handle] {
            char body[48] = {1};
            mq_send(handle, body, sizeof body, 0);
            bareReceive(handle, body);
        });
    const double withPayload = interleave(
                                   100,
                                   [&] {
                                       CZantMsg msg(pingSignal);
                                       msg.signalPtr = ::operator new(64);
                                       msg.signalSize = 64;
                                       queue.Send(&msg, 0);
                                       queue.ReceiveFromNonblockingQueue(&msg, 0);
                                   },
                                   [] {})
                                   .ours;
    printf(
        "  \"same_thread\": {\"ours_ns\": %.0f, \"bare_ns\": %.0f, \"with_payload_ns\": %.0f},\n",
        ratio.ours, ratio.bare, withPayload);
}

void observers() {
    printf("  \"observers\": [");
    for (const int count : {1, 2, 4, 8, 16}) {
        std::vector<std::unique_ptr<CZantMsgQueue>> queues;
        CObservableCallbackQueue observable;
        for (int i = 0; i < count; ++i) {
            queues.push_back(std::make_unique<CZantMsgQueue>());
            openOrAbort(*queues.back(), ("_observer" + std::to_string(i)).c_str());
            observable.RegisterCallbackQueue(queues.back()->handle, i, 0, 0);
        }
        std::vector<double> each;
        for (int turn = 0; turn < turns; ++turn) {
            each.push_back(nanosecondsEach(5, [&] {
                CZantMsg msg(pingSignal);
                msg.signalPtr = ::operator new(64);
                msg.signalSize = 64;
                observable.NotifyObserversWithCallbackQueue(&msg);
            }));
            for (const auto& queue : queues)
                queue->ClearQueue();
        }
        printf("%s{\"observers\": %d, \"ns\": %.0f}", count == 1 ? "" : ", ", count,
               quantile(each, 0.5));
    }
    printf("],\n");
}

/// Round trips to one queue thread from several threads at a time.
void manySenders() {
    printf("  \"senders\": [");
    for (int count = 1; count <= 8; ++count) {
        Echo echo;
        std::vector<std::vector<double>> taken(static_cast<size_t>(count));
        std::vector<std::thread> senders;
        for (int sender = 0; sender < count; ++sender)
            senders.emplace_back([&echo, &mine = taken[static_cast<size_t>(sender)], sender] {
                CZantMsgQueue answers;
                openOrAbort(answers, ("_sender" + std::to_string(sender)).c_str());
                for (int i = 0; i < 4000; ++i) {
                    const auto start = Clock::now();
                    CZantMsg msg(pingSignal);
                    msg.responseQueue = answers.handle;
                    if (echo.SendCmd(&msg) != 0)
                        continue;
                    answers.ReceiveFromNonblockingQueue(&msg, 0);
                    mine.push_back(nanoseconds(Clock::now() - start));
                }
            });
        for (std::thread& sender : senders)
            sender.join();
        std::vector<double> all;
        for (const auto& part : taken)
            all.insert(all.end(), part.begin(), part.end());
        printf("%s{\"senders\": %d, \"p50_ns\": %.0f, \"p99_ns\": %.0f}", count == 1 ? "" : ", ",
               count, quantile(all, 0.5), quantile(all, 0.99));
    }
    printf("]\n");
}

} // namespace

int main() {
    zantTrace.SetTraceOnAll(TRACELEVEL_WARNING);
    printf("{\n");
    const std::vector<size_t> usable = processors();
    std::thread([&usable] { // its processor is its own
        roundTrip("round_trip", usable.front(), usable.front());
        roundTrip("round_trip_two_processors", usable.front(), usable.back());
    })
        .join();
    sameThread();
    observers();
    manySenders();
    printf("}\n");
    return 0;
}
