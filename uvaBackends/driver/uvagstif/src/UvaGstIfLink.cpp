#include "UvaGstIfLink.h"

#include "UvaGstIfLowerLayer.h"
#include "UvaGstIfReceiver.h"
#include "messaging/queue/queue_io.h"

#include <chrono>
#include <cstdlib>
#include <cstring>

namespace {

std::string describe(const CThreadObjectWithQueue& part) {
    const std::string text =
        "no link to the main system, decoders will be refused: queue " + part.QueueName() + ": ";
    if (part.LacksThread())
        return text + "no thread can be started for it; raise the limit of threads (ulimit -u, or "
                      "pids.max of the cgroup) or of memory";
    const int error = part.QueueError();
    const char* const reason = strerrordesc_np(error);
    const std::string advice = queue_io::adviceOn(error);
    return text + (reason ? reason : "unknown error") + (advice.empty() ? "" : "; " + advice);
}

/// A program may end right after it has given the decoders back: that has still to be told.
void tellWhatIsLeft() {
    constexpr std::chrono::seconds longest(1);
    uvaGstIfLowerLayer.WaitUntilSent(std::chrono::steady_clock::now() + longest);
}

} // namespace

std::string openUvaGstIfLink() {
    const int32_t result = uvaGstIfReceiver.Init();
    uvaGstIfReceiver.StartThread("uvagst_if_receiver", 0, 0);
    uvaGstIfLowerLayer.Init(uvaGstIfReceiver.queueHandle(), 0);
    const CThreadObjectWithQueue* const notOpened = result != 0 || uvaGstIfReceiver.LacksThread()
                                                        ? &uvaGstIfReceiver
                                                        : uvaGstIfLowerLayer.NotOpened();
    if (!notOpened) {
        std::atexit(tellWhatIsLeft);
        return {};
    }
    uvaGstIfReceiver.cutOff();
    return describe(*notOpened);
}
