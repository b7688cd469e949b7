#include "messaging/thread/thread_object_blocking_wait.h"

#include "util/cancellation_block.h"

CThreadObjectBlockingWait::~CThreadObjectBlockingWait() {
    const CancellationBlock block;
    CThreadObjectBlockingWait::StopThreadAndWait();
}

void CThreadObjectBlockingWait::StopThread() {
    cancelThread(requestStop());
}

void CThreadObjectBlockingWait::StopThreadAndWait() {
    const Run run = requestStop();
    cancelThread(run);
    waitForEnd(run);
}
