#include "locks/mutex.h"
#include "uva/uva_client.h"
#include "uva/uva_drm_backend.h"
#include "uva/uva_sample.h"
#include "uva/uva_stream_config.h"
#include "uva/uva_time.h"

#include <chrono>
#include <map>
#include <string>

namespace {

/// Content-protection systems by the identifier of their key system. Outlives every host thread.
struct DrmBackends {
    locks::Mutex mutex; // leaf
    std::map<std::string, UVADRMBackend*> byKeySystem GUARDED_BY(mutex);

    static DrmBackends& instance() {
        static DrmBackends& backends = *new DrmBackends;
        return backends;
    }
};

} // namespace

UVAClient::~UVAClient() = default;
UVAStreamConfig::~UVAStreamConfig() = default;
UVASample::~UVASample() = default;

UVADRMDecrypter::~UVADRMDecrypter() = default;
UVADRMBackend::~UVADRMBackend() = default;
UVADRMKeySlotGetter::~UVADRMKeySlotGetter() = default;
UVADRMFullSampleDecrypter::~UVADRMFullSampleDecrypter() = default;

const char* const UVADRMKeySlotGetter::interfaceName = "org.uva.drm.key-slot-getter";
const char* const UVADRMFullSampleDecrypter::interfaceName = "org.uva.drm.full-sample-decrypter";

double UVATime::Timestamp() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double>(now).count();
}

void UVA_OfferDRMBackend(const char* keySystemId, UVADRMBackend* backend) {
    if (keySystemId == nullptr)
        return;
    auto& backends = DrmBackends::instance();
    const locks::Lock lock(backends.mutex);
    if (backend != nullptr)
        backends.byKeySystem[keySystemId] = backend;
    else
        backends.byKeySystem.erase(keySystemId);
}

UVADRMBackend* UVA_FindDRMBackend(const char* keySystemId) {
    if (keySystemId == nullptr)
        return nullptr;
    auto& backends = DrmBackends::instance();
    const locks::Lock lock(backends.mutex);
    const auto found = backends.byKeySystem.find(keySystemId);
    return found != backends.byKeySystem.end() ? found->second : nullptr;
}
