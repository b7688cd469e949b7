#include "link.h"

#include "cpucomm/tri_hidtv.h"
#include "cpucomm/trid_cpucomm.h"
#include "messaging/queue/queue_io.h"
#include "messaging/remote/block_size.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <mqueue.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace mainsys {

namespace {

namespace fs = std::filesystem;

const std::string ownQueue = rpc_sequence::queueNameOf(std::string(ownFunction));
const std::string plugInQueue = rpc_sequence::queueNameOf(std::string(plugInFunction));

using Block = std::unique_ptr<void, decltype(&Trid_Util_CPUComm_Free)>;

Block ownBlock(void* block) {
    return {block, Trid_Util_CPUComm_Free};
}

/// Takes the payload that a message names out of the shared memory.
std::string takePayload(const ZantMsgBody& body) {
    if (body.signalPtr == 0)
        return {};
    const Block block = ownBlock(Trid_Util_CPUComm_Convert2VirtualAddr(body.signalPtr));
    const auto size = static_cast<uint32_t>(std::max(body.signalSize, 0));
    if (!blockHolds(block.get(), size))
        return {};
    return {static_cast<const char*>(block.get()), size};
}

/// Nobody else frees the payloads of what was not read.
void discard(int queue) {
    for (ZantMsgBody body{}; queue_io::receiveAtOnce(queue, body) == sizeof body;)
        takePayload(body);
}

/// What an earlier main system has left.
void discardOldQueue() {
    const ScopedFd old(mq_open(ownQueue.c_str(), O_RDONLY | O_NONBLOCK));
    mq_attr attributes{};
    if (old && mq_getattr(old.get(), &attributes) == 0 &&
        attributes.mq_msgsize == sizeof(ZantMsgBody))
        discard(old.get());
    mq_unlink(ownQueue.c_str());
}

ScopedFd openPlugInQueue() {
    return ScopedFd(mq_open(plugInQueue.c_str(), O_WRONLY | O_NONBLOCK));
}

ScopedFd openOwnQueue() {
    constexpr long messages = 50;
    constexpr mode_t ownerAndGroup = 0660;
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_MSGQUEUE, &unlimited); // without the right to, the usual limit must do
    discardOldQueue();
    mq_attr attributes{};
    attributes.mq_maxmsg = messages;
    attributes.mq_msgsize = sizeof(ZantMsgBody);
    ScopedFd queue(queue_io::open(ownQueue.c_str(), O_CREAT | O_EXCL | O_RDONLY | O_NONBLOCK,
                                  ownerAndGroup, attributes));
    if (queue)
        return queue;
    const int error = errno;
    const std::string advice = queue_io::adviceOn(error);
    throw Failure(ExitFailed, std::string("queue ") + ownQueue + ": " + strerrordesc_np(error) +
                                  (advice.empty() ? "" : "; ") + advice);
}

/// The names in a folder of /proc, of which any may go meanwhile.
std::vector<fs::path> list(const fs::path& folder) {
    std::vector<fs::path> paths;
    std::error_code error;
    for (fs::directory_iterator next(folder, error), end; !error && next != end;
         next.increment(error))
        paths.push_back(next->path());
    return paths;
}

bool hasOpen(const fs::path& process, const struct stat& queue) {
    const auto files = list(process / "fd");
    return std::any_of(files.begin(), files.end(), [&queue](const fs::path& file) {
        struct stat info {};
        return stat(file.c_str(), &info) == 0 && info.st_ino == queue.st_ino &&
               info.st_dev == queue.st_dev;
    });
}

} // namespace

Link::SharedMemory::SharedMemory() {
    TriHidtvRegMap();
    if (Trid_Util_CPUComm_Init(0) != 0 || Trid_Util_CPUComm_Ready() != 0)
        throw Failure(
            ExitFailed,
            "no shared memory: the vendor's library does not attach to it, and may have said why. "
            "Where a set's own main system hands it out, use that one");
}

Link::SharedMemory::~SharedMemory() {
    Trid_Util_CPUComm_DeInit();
    TriHidtvRegUnmap();
}

Link::Link() : m_queue(openOwnQueue()) {}

Link::~Link() {
    mq_unlink(ownQueue.c_str());
    discard(m_queue.get());
}

std::optional<Signal> Link::take() {
    Signal signal;
    if (queue_io::receiveAtOnce(m_queue.get(), signal.body) != sizeof signal.body)
        return std::nullopt;
    signal.time = Clock::now();
    signal.payload = takePayload(signal.body);
    return signal;
}

void Link::send(Signal& signal) {
    const ScopedFd queue = openPlugInQueue();
    if (!queue)
        return;
    ZantMsgBody body = signal.body;
    body.rpcControl = rpc_sequence::stamp(body.rpcControl, m_sequence);
    m_sequence = rpc_sequence::next(m_sequence);
    body.signalSize = static_cast<int32_t>(signal.payload.size());
    const auto size = static_cast<uint32_t>(body.signalSize);
    Block block = ownBlock(size > 0 ? Trid_Util_CPUComm_Malloc(size) : nullptr);
    if (block)
        memcpy(block.get(), signal.payload.data(), size);
    body.signalPtr = Trid_Util_CPUComm_Convert2PhyAddr(block.get());
    const bool complete = body.signalPtr != 0 || size == 0;
    if (!complete ||
        mq_send(queue.get(), reinterpret_cast<const char*>(&body), sizeof body, 0) != 0)
        return;
    static_cast<void>(block.release()); // the plug-in's now
    signal.body.rpcControl = body.rpcControl;
}

void Link::sendRaw(const ZantMsgBody& body, uint32_t count) {
    const ScopedFd queue = openPlugInQueue();
    for (uint32_t i = 0; queue && i < count; ++i)
        mq_send(queue.get(), reinterpret_cast<const char*>(&body), sizeof body, 0);
}

ScopedFd openPlugInProcess() {
    const ScopedFd queue = openPlugInQueue();
    struct stat info {};
    if (!queue || fstat(queue.get(), &info) != 0)
        return ScopedFd();
    for (const fs::path& path : list("/proc")) {
        const pid_t process = std::atoi(path.filename().c_str());
        // Opened before it is looked at: the number may be another's any time.
        const bool other = process > 0 && process != getpid();
        ScopedFd handle(other ? static_cast<int>(syscall(SYS_pidfd_open, process, 0)) : -1);
        if (handle && hasOpen(path, info))
            return handle;
    }
    return ScopedFd();
}

} // namespace mainsys
