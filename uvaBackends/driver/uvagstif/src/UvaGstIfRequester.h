#ifndef UVA_GST_IF_REQUESTER_H
#define UVA_GST_IF_REQUESTER_H

#include <cstdint>

/// Whose a decoder is, and whose waits end together: a backend has one. The receiver alone looks
/// into it, under its lock; CUvaGstIfReceiver::leave comes before its end.
class UvaGstIfRequester {
public:
    UvaGstIfRequester() = default;
    UvaGstIfRequester(const UvaGstIfRequester&) = delete;
    UvaGstIfRequester& operator=(const UvaGstIfRequester&) = delete;

private:
    friend class CUvaGstIfReceiver;

    uint32_t m_breakers = 0;    ///< breakWaits without their allowWaits; no wait begins meanwhile
    uint32_t m_brokenWaits = 0; ///< breakWaits ever
};

#endif
