// A thread that owns a queue and traces what it is sent.

#include "debug/trace/zant_trace_core.h"
#include "messaging/queue/zant_msg.h"
#include "messaging/queue_thread/thread_object_with_queue.h"

#include <future>

class Printer : public CThreadObjectWithQueue {
public:
    ~Printer() override { StopThreadAndWait(); }

    void ProcessZantMsg(CZantMsg* msg) override {
        ZANT_TRACE(100, TRACELEVEL_SYSINFO, "signal %u, page %d\n", msg->signalId, msg->param1);
        if (msg->param1 == lastPage)
            done.set_value();
        msg->FreeSignal();
    }

    static constexpr int lastPage = 3;
    std::promise<void> done;
};

int main() {
    zantTrace.StartTracingToScreen();
    Printer printer;
    if (printer.Init("/Q_PRINTER_", 10, 0600, false, true) != 0)
        return 1; // the queue's own trace, a line above, says why
    printer.StartThread("printer", 0, 0);
    CZantMsg msg(1000);
    for (msg.param1 = 1; msg.param1 <= Printer::lastPage; ++msg.param1)
        printer.SendCmd(&msg);
    printer.done.get_future().wait(); // a thread that is stopped leaves the rest of its queue
}
