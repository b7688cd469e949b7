// What the link to the main system costs, against the bare system calls between two processes: from
// a request for a decoder to its grant, and a payload on its way. All threads share a processor.
// Runs in a box (tvbox), as the link's queues have fixed names.

#include "UvaGstIfLink.h"
#include "UvaGstIfLowerLayer.h"
#include "UvaGstIfReceiver.h"
#include "bench_support.h"
#include "cpucomm/trid_cpucomm.h"
#include "messaging/queue/zant_msg_body.h"
#include "messaging/remote/rpc_sequence.h"

#include <array>
#include <cstring>
#include <fcntl.h>
#include <mqueue.h>
#include <poll.h>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int exchangesEach = 10;
constexpr int videoDecoder = 2;
constexpr size_t largestPayload = 64 * 1024;

// What the parent asks of the main system besides the link's own signals.
constexpr SignalIds askBack = SIG_ID_MPLAYER_MEDIA_INFO_IND;
constexpr uint32_t bareExchange = 1;
constexpr uint32_t barePayload = 2;
constexpr uint32_t quit = 3;

// The bare side's queues; those after the answers are the stations of the long way round.
enum BareQueue : int { Requests, Answers, Outbound, Inbound, Received, NrOfBareQueues };
std::array<mqd_t, NrOfBareQueues> bare{};
unsigned char* sharedBytes = nullptr; // the bare side's payload

[[noreturn]] void fail(const std::string& what) {
    bench::fail(what + ": " + strerror(errno));
}

mqd_t openQueue(const std::string& name, int capacity) {
    mq_attr attributes{};
    attributes.mq_maxmsg = capacity;
    attributes.mq_msgsize = sizeof(ZantMsgBody);
    mq_unlink(name.c_str());
    const mqd_t queue = mq_open(name.c_str(), O_RDWR | O_CREAT | O_NONBLOCK, 0600, &attributes);
    if (queue < 0)
        fail("no queue; run it in a box (tvbox --require)");
    return queue;
}

void send(mqd_t queue, const ZantMsgBody& body) {
    if (mq_send(queue, reinterpret_cast<const char*>(&body), sizeof body, 0) != 0)
        fail("mq_send");
}

ZantMsgBody receive(mqd_t queue) {
    ZantMsgBody body{};
    pollfd readable{queue, POLLIN, 0};
    while (mq_receive(queue, reinterpret_cast<char*>(&body), sizeof body, nullptr) < 0)
        poll(&readable, 1, -1);
    return body;
}

/// The other process: the least that a main system can be.
class MainSystem {
public:
    [[noreturn]] void run() {
        pollfd readable[] = {{m_link, POLLIN, 0}, {bare[Requests], POLLIN, 0}};
        for (;;) {
            poll(readable, 2, -1);
            if ((readable[0].revents & POLLIN) != 0)
                handleLink(receive(m_link));
            if ((readable[1].revents & POLLIN) != 0)
                handleBare(receive(bare[Requests]));
        }
    }

private:
    void handleLink(const ZantMsgBody& body) {
        if (body.signalId == SIG_ID_MPLAYER_DECODER_NEEDED_IND)
            say(SIG_ID_MPLAYER_DECODER_AVAILABLE_IND, body.param1);
        else if (body.signalId == askBack)
            say(SIG_ID_MPLAYER_DECODER_RELEASE_REQ, videoDecoder);
        else if (body.signalSize > 0)
            takePayload(body);
    }

    void takePayload(const ZantMsgBody& body) {
        void* const block = Trid_Util_CPUComm_Convert2VirtualAddr(body.signalPtr);
        std::memcpy(m_copy.data(), block, static_cast<size_t>(body.signalSize));
        Trid_Util_CPUComm_Free(block);
        send(bare[Answers], body);
    }

    void handleBare(const ZantMsgBody& body) {
        if (body.signalId == quit)
            _exit(0);
        if (body.signalId == barePayload)
            std::memcpy(m_copy.data(), sharedBytes, static_cast<size_t>(body.signalSize));
        send(bare[static_cast<size_t>(body.param1)], body);
    }

    void say(SignalIds signal, int kinds) {
        if (m_plugIn < 0)
            m_plugIn = mq_open("/BplayerAppIfLlDestFunc", O_WRONLY);
        ZantMsgBody body{};
        body.signalId = signal;
        body.param1 = kinds;
        body.rpcControl = rpc_sequence::stamp(0, m_sequence);
        m_sequence = rpc_sequence::next(m_sequence);
        send(m_plugIn, body);
    }

    const mqd_t m_link = openQueue("/BplayerAppIfUlDestFunc", 50);
    mqd_t m_plugIn = -1;
    uint32_t m_sequence = 1;
    std::array<char, largestPayload> m_copy{};
};

template <typename What>
double microseconds(What what) {
    return bench::nanosecondsEach(1, what) / 1e3;
}

/// Asks, is granted, and in time that does not count gives the decoder back.
double requestToGrant() {
    const char requester = 0;
    const double took = microseconds([&] {
        if (!uvaGstIfReceiver.requestDecoder(MediaKind::Video, &requester))
            fail("no grant");
    });
    uvaGstIfReceiver.leave(&requester);
    uvaGstIfLowerLayer.sendIndicationInt32(askBack, 0);
    while (uvaGstIfReceiver.state().available != 0)
        sched_yield();
    return took;
}

/// A request that the other process answers into one of the bare queues.
ZantMsgBody bareRequest(uint32_t what, BareQueue answers) {
    ZantMsgBody body{};
    body.signalId = what;
    body.param1 = answers;
    return body;
}

double directExchange() {
    return microseconds([] {
        send(bare[Requests], bareRequest(bareExchange, Answers));
        receive(bare[Answers]);
    });
}

/// As many threads as the link has: its sender, its destination, the receiver.
double exchangeThroughThreads() {
    return microseconds([] {
        send(bare[Outbound], bareRequest(bareExchange, Inbound));
        receive(bare[Answers]);
    });
}

void relay(BareQueue from, BareQueue to) {
    std::thread([from, to] {
        for (;;)
            send(bare[static_cast<size_t>(to)], receive(bare[static_cast<size_t>(from)]));
    }).detach();
}

double payloadOverLink(const std::vector<unsigned char>& bytes) {
    return microseconds([&] {
        uvaGstIfLowerLayer.sendIndicationBuffer(SIG_ID_MPLAYER_VIDEO_FORMAT_IND, bytes.data(),
                                                static_cast<int>(bytes.size()));
        receive(bare[Answers]);
    });
}

double payloadBare(const std::vector<unsigned char>& bytes) {
    return microseconds([&] {
        std::memcpy(sharedBytes, bytes.data(), bytes.size());
        ZantMsgBody body = bareRequest(barePayload, Answers);
        body.signalSize = static_cast<int32_t>(bytes.size());
        send(bare[Requests], body);
        receive(bare[Answers]);
    });
}

/// The mean of a few exchanges.
bench::Side several(const bench::Side& exchange) {
    return [exchange] {
        double sum = 0;
        for (int i = 0; i < exchangesEach; ++i)
            sum += exchange();
        return sum / exchangesEach;
    };
}

void grant() {
    const auto values =
        bench::interleave(bench::share(1001), {several(requestToGrant), several(directExchange),
                                               several(exchangeThroughThreads)});
    bench::report("grant", values[0], values[2]);
    bench::report("grant_direct", values[0], values[1]);
}

void payload() {
    for (const auto& [row, size] :
         {std::pair{"payload_small", size_t{22}}, std::pair{"payload_large", largestPayload}}) {
        const std::vector<unsigned char> bytes(size, 0x5a);
        bench::compare(row, bench::share(501), several([&] { return payloadOverLink(bytes); }),
                       several([&] { return payloadBare(bytes); }));
    }
}

/// With the link open and the main system in another process.
template <void measure()>
void linked() {
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_MSGQUEUE, &unlimited);
    bench::stayOn(static_cast<size_t>(sched_getcpu()));
    for (int i = 0; i < NrOfBareQueues; ++i)
        bare[static_cast<size_t>(i)] = openQueue("/link_bench_" + std::to_string(i), 10);
    sharedBytes = static_cast<unsigned char*>(
        mmap(nullptr, largestPayload, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (sharedBytes == MAP_FAILED || Trid_Util_CPUComm_Init(0) != 0)
        fail("shared memory");
    Trid_Util_CPUComm_Ready();
    const pid_t child = fork();
    if (child < 0)
        fail("fork");
    if (child == 0)
        MainSystem().run();
    if (const std::string failure = openUvaGstIfLink(); !failure.empty())
        bench::fail(failure);
    relay(Outbound, Requests);
    relay(Inbound, Received);
    relay(Received, Answers);
    measure();
    send(bare[Requests], bareRequest(quit, Answers));
    waitpid(child, nullptr, 0);
    uvaGstIfLowerLayer.Term();
    uvaGstIfReceiver.Term();
    Trid_Util_CPUComm_DeInit();
}

} // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv, {{"grant", linked<grant>}, {"payload", linked<payload>}});
}
