#include "uva/uva_client.h"
#include "uva/uva_drm_backend.h"
#include "uva/uva_sample.h"
#include "uva/uva_stream_config.h"
#include "uva/uva_time.h"

#include <chrono>

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
