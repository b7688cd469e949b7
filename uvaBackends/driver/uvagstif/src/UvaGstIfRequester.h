#ifndef UVA_GST_IF_REQUESTER_H
#define UVA_GST_IF_REQUESTER_H

#include <array>
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

    struct Waits {
        uint32_t breakers = 0; ///< breakWaits without their allowWaits; no wait begins meanwhile
        uint32_t broken = 0;   ///< breakWaits ever
    };
    std::array<Waits, 2> m_waits; ///< for audio, for video
};

#endif
