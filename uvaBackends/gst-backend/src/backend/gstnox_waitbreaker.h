#ifndef GSTNOX_WAITBREAKER_H
#define GSTNOX_WAITBREAKER_H

#include "UvaGstIfReceiver.h"
#include "backend/gstnox_backend.h"

/// Ends the waits of the sinks for as long as it lives: of all, or of those for one decoder, "audio"
/// or "video".
class GstNoxBackend::WaitBreaker {
public:
    explicit WaitBreaker(GstNoxBackend& backend, const char* kind = nullptr)
        : m_backend(backend), m_kind(kind) {
        {
            const GLibLock lock(m_backend.m_lock);
            ++m_backend.m_waitBreakers;
            ++m_backend.m_brokenWaits;
            m_backend.m_condition.broadcast();
        }
        uvaGstIfReceiver.breakWaits(m_backend.m_requester, m_kind);
    }
    ~WaitBreaker() {
        uvaGstIfReceiver.allowWaits(m_backend.m_requester, m_kind);
        const GLibLock lock(m_backend.m_lock);
        --m_backend.m_waitBreakers;
    }
    WaitBreaker(const WaitBreaker&) = delete;
    WaitBreaker& operator=(const WaitBreaker&) = delete;

private:
    GstNoxBackend& m_backend;
    const char* const m_kind;
};

#endif
