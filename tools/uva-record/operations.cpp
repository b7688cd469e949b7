#include "operations.h"

#include "uva/uva_media_backend.h"

#include <cstring>
#include <iterator>

namespace record {

namespace {

constexpr OperationRow operationTable[] = {
#define OPERATION(key, answers, result, name, parameters, ...)                                     \
    {#name, "" #__VA_ARGS__, Answers::answers},
#include "operations.def"
#undef OPERATION
    {"UVA_RequestBackend", "type", Answers::Same},
    {"UVA_ReleaseBackend", "", Answers::Same},
};
static_assert(std::size(operationTable) == static_cast<std::size_t>(lastOperation) + 1);

constexpr const char* drmNames[] = {"createDecrypter", "releaseDecrypter", "getInterface",
                                    "decrypt",         "getKeySlot",       "decryptSample"};
static_assert(std::size(drmNames) == static_cast<std::size_t>(lastDrmOperation) + 1);

// By UVAEvent::Type.
constexpr EventRow eventTable[] = {
    {"BackendResourceRevoked", "", Order::Anyhow, false},
    {"BackendResourceRequestAsync", "audioOnly", Order::Anyhow, false},
    {"BackendResourceReleased", "audioOnly", Order::Anyhow, false},
    {"NeedData", "", Order::Free, false},
    {"NeedMSEData", "sourceId, samples", Order::Free, false},
    {"PlaybackFinished", "reason, detail", Order::InTurn, false},
    {"NewMetadata", "duration, width, height, pixelAspectRatio", Order::Settles, false},
    {"NeedKeySystem", "", Order::Free, false},
    {"DecodeError", "reason", Order::InTurn, false},
    {"VideoFrameAvailable", "frame", Order::Free, false},
    {"VideoBufferAvailable", "", Order::Free, false},
    {"DRMRightsError", "", Order::InTurn, false},
    {"ParentalRatingError", "", Order::InTurn, false},
    {"ParentalRatingChange", "", Order::Free, false},
    {"PlaySpeedChanged", "", Order::Free, false},
    {"BroadcastPlayPositionChanged", "", Order::Free, false},
    {"BroadcastPlaystateChange", "", Order::Free, false},
    {"BroadcastSignalStrengthChanged", "", Order::Free, false},
    {"ChannelChangeError", "", Order::Free, false},
    {"ChannelChangeSucceeded", "", Order::Free, false},
    {"ProgrammesChanged", "", Order::Free, false},
    {"Recording", "", Order::Free, false},
    {"BufferingProgress", "", Order::Free, false},
    {"BufferingNetworkError", "reason", Order::InTurn, false},
    {"BufferingIdle", "", Order::Free, false},
    {"BufferingStreamUnderrun", "", Order::Free, false},
    {"BufferingStreamBuffered", "", Order::Free, false},
    {"ConnectionEstablished", "", Order::Free, false},
    {"ConnectionLost", "", Order::Free, false},
    {"DeprecatedSubtitlesChanged", "", Order::Free, false},
    {"ComponentChanged", "", Order::Free, false},
    {"ExternalComponentActivate", "", Order::Free, false},
    {"MultiComponentChanged", "removed, added", Order::Anyhow, false},
    {"InBandVTTUpdate", "", Order::Free, false},
    {"InBandDVBSub", "", Order::Free, false},
    {"InBandDataUpdate", "", Order::Free, false},
    {"InBandTTML", "", Order::Free, false},
    {"InBandRemoveCuesRange", "", Order::Free, false},
    {"GetCookies", "", Order::Free, false},
    {"PlaySpeedsArrayChanged", "", Order::Free, false},
    {"SetCookie", "", Order::Free, false},
    {"CancelDataRequestsAsync", "position", Order::InTurn, true},
    {"SeekCompletedEx", "outcome", Order::InTurn, true},
    {"CacheUpdateRequestAsync", "", Order::Free, false},
    {"PidFilterData", "", Order::Free, false},
    {"ChannelChanged", "", Order::Free, false},
    {"TunerStateChanged", "", Order::Free, false},
    {"BouquetSelectionChanged", "", Order::Free, false},
    {"ContentIdChanged", "", Order::Free, false},
    {"MrsUrlChanged", "", Order::Free, false},
    {"AsyncReleaseFinished", "", Order::InTurn, true},
    {"FramesDropped", "", Order::Free, false},
    {"BufferingStreamPreloaded", "", Order::Free, false},
    {"ActiveStateChanged", "active", Order::InTurn, true},
    {"PauseFinished", "", Order::InTurn, true},
};
static_assert(std::size(eventTable) == UVAEvent::PauseFinished + 1);
constexpr EventRow unknownEvent = {"an event of a type that there is not", "", Order::Free, false};

} // namespace

const OperationRow& rowOf(Operation operation) {
    return operationTable[static_cast<std::size_t>(operation)];
}

const char* nameOf(DrmOperation operation) {
    return drmNames[static_cast<std::size_t>(operation)];
}

const EventRow& rowOf(UVAEvent::Type type) {
    const auto index = static_cast<std::size_t>(type);
    return index < std::size(eventTable) ? eventTable[index] : unknownEvent;
}

std::string takeName(const char*& names) {
    const char* const end = std::strstr(names, ", ");
    const std::string name = end != nullptr ? std::string(names, end) : std::string(names);
    names = end != nullptr ? end + 2 : "";
    return name;
}

} // namespace record
