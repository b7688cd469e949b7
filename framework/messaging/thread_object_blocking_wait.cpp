#include "messaging/thread_object_blocking_wait.h"

#include "messaging/cancellation_block.h"

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
