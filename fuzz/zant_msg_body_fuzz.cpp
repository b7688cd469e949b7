// Random bytes in a queue, as any program of the same user may put there: they are read, dumped and
// drained without a crash, and never become a payload.

#include "fuzz_target.h"
#include "messaging/queue/zant_msg.h"
#include "messaging/queue/zant_msg_queue.h"
#include "messaging/timer/time_out_timer.h"
#include "quiet_traces.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

CZantMsgQueue& openQueue() {
    static CZantMsgQueue queue;
    static const int32_t opened = queue.Open(("/zant_fuzz_" + std::to_string(getpid())).c_str(),
                                             O_RDWR | O_CREAT | O_NONBLOCK, 0600, 10, true);
    require(opened == 0);
    return queue;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fuzz::QuietTraces quiet;
    CZantMsgQueue& queue = openQueue();
    CZantMsg mine(517);
    mine.signalPtr = ::operator new(8);
    mine.signalSize = 8;
    require(queue.Send(&mine, 0) == 0);

    size_t sent = 0;
    for (; size > 0 && sent < 9; ++sent) {
        const size_t length = std::min<size_t>(size, 48);
        require(mq_send(queue.handle, reinterpret_cast<const char*>(data), length, 1) == 0);
        data += length;
        size -= length;
    }
    for (size_t i = 0; i < sent / 2; ++i) {
        CZantMsg msg;
        if (queue.Receive(&msg, 0) != 0)
            continue;
        TimerIsValid(&msg);
        const CZantMsg copy(msg);
        // Touches every byte that a receiver may trust.
        if (copy.signalPtr && copy.signalSize > 0)
            memset(copy.signalPtr, 0, static_cast<size_t>(copy.signalSize));
    }
    if (sent % 2 == 0)
        CZantMsgQueue::DumpQueue(queue.handle);
    queue.ClearQueue();
    return 0;
}
