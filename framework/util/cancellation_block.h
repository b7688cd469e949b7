#ifndef MESSAGING_CANCELLATION_BLOCK_H
#define MESSAGING_CANCELLATION_BLOCK_H

#include "util/sanitizers.h"

#include <pthread.h>

/// Holds back the cancellation of the calling thread for a scope. A thread that sits in a blocking
/// call is stopped by cancellation, and cancellation may strike in any system call: what holds a
/// lock, moves a payload or runs in a destructor blocks it. Reentrant.
class CancellationBlock {
public:
    CancellationBlock() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    ~CancellationBlock() { pthread_setcancelstate(m_before, nullptr); }
    CancellationBlock(const CancellationBlock&) = delete;
    CancellationBlock& operator=(const CancellationBlock&) = delete;

    /// Runs a blocking call as the scope's caller would: it may be cancelled in there.
    template <typename Call>
    auto allowDuring(Call call) const {
        Allowance allowance(m_before);
        const auto result = call();
        allowance.hasReturned = true;
        return result;
    }

private:
    struct Allowance {
        explicit Allowance(int state) { pthread_setcancelstate(state, nullptr); }
        ~Allowance() {
            if (!hasReturned)
                sanitizers::forgetLeftFrames(); // cancelled: the call has not returned
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        }
        Allowance(const Allowance&) = delete;
        Allowance& operator=(const Allowance&) = delete;

        bool hasReturned = false;
    };

    int m_before = PTHREAD_CANCEL_ENABLE;
};

#endif
