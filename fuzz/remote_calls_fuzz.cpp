// Any sequence of remote calls between a source and a destination, with forged messages in between,
// memory that is short and queues that go away: payloads arrive as they were sent, nothing is read
// beyond a block, and no block is left behind. Input: steps, a byte for what to do each.

#include "fuzz_target.h"
#include "input.h"
#include "messaging/queue/zant_msg.h"
#include "messaging/queue/zant_msg_body.h"
#include "messaging/queue/zant_msg_queue.h"
#include "messaging/remote/zant_rpc_msg_dest_posix.h"
#include "messaging/remote/zant_rpc_msg_src_posix.h"
#include "quiet_traces.h"
#include "shared_memory.h"
#include "simulation.h"

#include <deque>
#include <fcntl.h>
#include <mqueue.h>
#include <new>
#include <string>
#include <unistd.h>

namespace {

constexpr int room = 6; ///< messages in the peer's queue
constexpr size_t longestPayload = 700;

const std::string& function() {
    static const std::string name = "fuzz_calls_" + std::to_string(getpid());
    return name;
}

/// Both ends of the link on one thread, which does what the input says.
class Link final : CObserverCallbackFunction {
public:
    Link() {
        m_peer.CarrySharedAddresses([](uint32_t address) {
            Trid_Util_CPUComm_Free(Trid_Util_CPUComm_Convert2VirtualAddr(address));
        });
        openPeer();
        require(m_source.Init("/fuzz_source_", 1, CPUID_MAIN, function()) == 0);
        m_destination.RegisterCallbackFunction(*this, 0, 0, 0);
    }
    ~Link() override {
        cpucomm::setFaults("");
        m_destination.UnregisterCallbackFunction(*this, 0);
        m_peer.Unlink();
        require(cpucomm::statistics().blocks == 0);
    }

    void send(fuzz::Input& input) {
        const auto size = input.byte() * longestPayload / UINT8_MAX;
        std::string payload = input.text(size);
        payload.resize(size, 'x');
        CZantMsg msg(SIG_ID_TEST_RPC);
        msg.param1 = ++m_number;
        if (size > 0) {
            msg.signalSize = static_cast<int32_t>(size);
            msg.signalPtr = ::operator new(size);
            payload.copy(static_cast<char*>(msg.signalPtr), size);
        }
        const bool sent = m_source.SendMsgViaRpcPosixQueue(&msg) == 0;
        require(msg.signalPtr == nullptr);
        if (sent)
            m_sent.push_back({m_number, std::move(payload)});
    }

    /// A body as another program may write it, which names a block or what once was one.
    void forge(fuzz::Input& input) {
        const auto kind = input.byte();
        auto body = input.take<ZantMsgBody>();
        void* const block = Trid_Util_CPUComm_Malloc(input.byte() + 1U);
        const uint32_t address = Trid_Util_CPUComm_Convert2PhyAddr(block);
        constexpr uint32_t within = 8;
        const uint32_t addresses[] = {body.signalPtr, address, address + within, 0};
        body.signalPtr = addresses[kind % std::size(addresses)];
        const bool isNamed = body.signalPtr == address && address != 0;
        const bool sent = mq_send(m_peer.handle, reinterpret_cast<const char*>(&body), sizeof body,
                                  kind % 3U) == 0;
        if (!isNamed || !sent)
            Trid_Util_CPUComm_Free(block);
        m_isForged = m_isForged || sent;
    }

    void deliver() {
        CZantMsg msg;
        if (m_peer.Receive(&msg, 0) == 0)
            m_destination.ProcessZantMsg(&msg);
    }

    void makePeerAnew() {
        m_peer.Unlink();
        m_sent.clear();
        openPeer();
    }

private:
    struct Sent {
        int32_t number;
        std::string payload;
    };

    void openPeer() {
        require(m_peer.Open(('/' + function()).c_str(), O_RDWR | O_CREAT | O_NONBLOCK, 0600, room,
                            true) == 0);
    }

    void CallbackFunction(CZantMsg* msg) override {
        require(msg->sharedAddress == 0);
        require(msg->signalPtr == nullptr || msg->signalSize > 0);
        const std::string payload(static_cast<const char*>(msg->signalPtr),
                                  msg->signalPtr ? static_cast<size_t>(msg->signalSize) : 0);
        if (m_isForged)
            return;
        require(!m_sent.empty() && msg->param1 == m_sent.front().number);
        require(payload == m_sent.front().payload);
        m_sent.pop_front();
    }

    const fuzz::SharedMemory m_memory;
    CZantMsgQueue m_peer;
    CZantRpcMsgSrcPosix m_source;
    CZantRpcMsgDestPosix m_destination;
    std::deque<Sent> m_sent;
    int32_t m_number = 0;
    bool m_isForged = false;
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr const char* faults[] = {"", "malloc", "phys"};
    const fuzz::QuietTraces quiet;
    fuzz::Input input(data, size);
    Link link;
    while (input.size() > 0) {
        const auto step = input.byte();
        switch (step % 8) {
        case 0:
        case 1:
            link.send(input);
            break;
        case 2:
            link.forge(input);
            break;
        case 3:
            cpucomm::setFaults(faults[step / 8 % std::size(faults)]);
            break;
        case 4:
            link.makePeerAnew();
            break;
        default:
            link.deliver();
        }
    }
    return 0;
}
