#include "link_worker.h"

#include "cpucomm/tri_hidtv.h"
#include "cpucomm/trid_cpucomm.h"
#include "link_socket.h"
#include "messaging/queue/queue_io.h"
#include "messaging/queue/zant_msg.h"
#include "messaging/remote/zant_rpc_msg_dest_posix.h"
#include "messaging/remote/zant_rpc_msg_src_posix.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mqueue.h>
#include <mutex>
#include <new>
#include <sys/resource.h>

namespace mainsys {

namespace {

constexpr const char* ownFunction = "BplayerAppIfUlDestFunc";
constexpr const char* ownQueue = "/BplayerAppIfUlDestFunc";
constexpr const char* plugInFunction = "BplayerAppIfLlDestFunc";
constexpr const char* plugInQueue = "/BplayerAppIfLlDestFunc";

/// Passes every message that it is given.
class Inbox : public CThreadObjectWithQueue {
public:
    explicit Inbox(int socket) : m_socket(socket) {}
    ~Inbox() override { CThreadObjectWithQueue::StopThreadAndWait(); }

    int32_t start() {
        const int32_t result = Init("/Q_MAINSYS_REC_", 50, 0, false, true);
        return result != 0 ? result : StartThread("mainsys_receiver", 0, 0);
    }
    int queueHandle() const { return m_queue.handle; }

    void ProcessZantMsg(CZantMsg* msg) override {
        Passed passed;
        passed.kind = Passing::Received;
        passed.signal.time = Clock::now();
        passed.signal.body = packForOtherProcess(*msg);
        if (msg->signalPtr && msg->signalSize > 0)
            passed.signal.payload.assign(static_cast<char*>(msg->signalPtr),
                                         static_cast<size_t>(msg->signalSize));
        msg->FreeSignal();
        pass(m_socket, passed);
    }

private:
    int m_socket;
};

/// What an earlier main system did not read: nobody else frees its payloads.
void discardOldQueue() {
    const int old = mq_open(ownQueue, O_RDONLY | O_NONBLOCK);
    if (old < 0)
        return;
    mq_attr attributes{};
    mq_getattr(old, &attributes);
    ZantMsgBody body{};
    if (attributes.mq_msgsize == sizeof body) {
        while (queue_io::receiveAtOnce(old, body) == sizeof body)
            if (body.signalSize != 0)
                Trid_Util_CPUComm_Free(Trid_Util_CPUComm_Convert2VirtualAddr(body.signalPtr));
    }
    mq_close(old);
    mq_unlink(ownQueue);
}

class Link {
public:
    explicit Link(int socket) : m_socket(socket), m_inbox(socket) {}

    bool start() {
        discardOldQueue();
        return isOpen(m_inbox, m_inbox.start()) &&
               isOpen(m_destination, m_destination.Init(ownFunction, nullptr, CPUID_MAIN,
                                                        m_inbox.queueHandle(), 0)) &&
               isOpen(m_source,
                      m_source.Init("/Q_MAINSYS_SEND_", 50, CPUID_APPLICATION, plugInFunction)) &&
               m_source.StartThread("mainsys_sender", 0, 0) == 0;
    }

    void run() {
        for (Passed passed; takePassed(m_socket, passed);) {
            if (passed.kind == Passing::Send)
                send(passed.signal);
            else if (passed.kind == Passing::SendRaw)
                sendRaw(passed);
        }
    }

    void stop() {
        m_destination.StopThreadAndWait();
        m_source.StopThreadAndWait();
        mq_unlink(ownQueue);
    }

private:
    /// Says which queue cannot be had, and why.
    static bool isOpen(const CThreadObjectWithQueue& part, int32_t result) {
        if (result == 0)
            return true;
        const std::string advice = queue_io::adviceOn(part.QueueError());
        fprintf(stderr, "zant-mainsys: queue %s: %s%s%s\n", part.QueueName().c_str(),
                strerrordesc_np(part.QueueError()), advice.empty() ? "" : "; ", advice.c_str());
        return false;
    }

    void send(const Signal& signal) {
        CZantMsg msg;
        unpackFromOtherProcess(signal.body, msg);
        msg.sharedAddress = 0;
        const size_t size = signal.payload.size();
        msg.signalSize = static_cast<int32_t>(size);
        if (size > 0)
            msg.signalPtr = memcpy(::operator new(size), signal.payload.data(), size);
        m_source.SendCmd(&msg);
    }

    static void sendRaw(const Passed& passed) {
        const int queue = mq_open(plugInQueue, O_WRONLY | O_NONBLOCK);
        if (queue < 0)
            return;
        for (uint32_t i = 0; i < passed.count; ++i)
            mq_send(queue, reinterpret_cast<const char*>(&passed.signal.body),
                    sizeof passed.signal.body, 0);
        mq_close(queue);
    }

    int m_socket;
    Inbox m_inbox;
    CZantRpcMsgDestPosix m_destination;
    CZantRpcMsgSrcPosix m_source;
};

void raiseQueueLimit() {
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_MSGQUEUE, &unlimited); // without the right to, the usual limit must do
}

} // namespace

void runLink(int socket) {
    raiseQueueLimit();
    TriHidtvRegMap();
    Passed answer;
    answer.signal.time = Clock::now();
    const bool shared = Trid_Util_CPUComm_Init(0) == 0 && Trid_Util_CPUComm_Ready() == 0;
    const auto link = std::make_unique<Link>(socket);
    answer.kind = shared && link->start() ? Passing::Ready : Passing::Failed;
    pass(socket, answer);
    if (answer.kind == Passing::Ready)
        link->run();
    link->stop();
    Trid_Util_CPUComm_DeInit();
    TriHidtvRegUnmap();
}

} // namespace mainsys
