#ifndef MESSAGING_THREAD_OBJECT_BLOCKING_WAIT_H
#define MESSAGING_THREAD_OBJECT_BLOCKING_WAIT_H

#include "messaging/thread/thread_object.h"

/// A thread that sits in a blocking call and is cancelled to be stopped.
///
/// Cancellation strikes in system calls, unwinds the stack and runs destructors. The framework's
/// own calls lose no lock and no message by it; a derived class holds its locks by scope and does
/// not swallow the unwinding with a catch-all that does not throw again. What must not be broken
/// off, such as a destructor that makes system calls, blocks cancellation (CancellationBlock).
class CThreadObjectBlockingWait : public CThreadObject {
public:
    using CThreadObject::CThreadObject;
    ~CThreadObjectBlockingWait() override;

    void StopThread() override;
    void StopThreadAndWait() override;
    int GetThreadType() override { return 5; }
};

#endif
