#include "event_description.h"

#include "calls.h"
#include "uva/uva_event.h"

#include <iterator>

namespace host {

namespace {

/// In the order of UVAEvent::Type, which is binding.
// clang-format off
constexpr const char* names[] = {
    "BackendResourceRevoked", "BackendResourceRequestAsync", "BackendResourceReleased",
    "NeedData", "NeedMSEData", "PlaybackFinished", "NewMetadata", "NeedKeySystem",
    "DecodeError", "VideoFrameAvailable", "VideoBufferAvailable", "DRMRightsError",
    "ParentalRatingError", "ParentalRatingChange", "PlaySpeedChanged",
    "BroadcastPlayPositionChanged", "BroadcastPlaystateChange",
    "BroadcastSignalStrengthChanged", "ChannelChangeError", "ChannelChangeSucceeded",
    "ProgrammesChanged", "Recording", "BufferingProgress", "BufferingNetworkError",
    "BufferingIdle", "BufferingStreamUnderrun", "BufferingStreamBuffered",
    "ConnectionEstablished", "ConnectionLost", "DeprecatedSubtitlesChanged", "ComponentChanged",
    "ExternalComponentActivate", "MultiComponentChanged", "InBandVTTUpdate", "InBandDVBSub",
    "InBandDataUpdate", "InBandTTML", "InBandRemoveCuesRange", "GetCookies",
    "PlaySpeedsArrayChanged", "SetCookie", "CancelDataRequestsAsync", "SeekCompletedEx",
    "CacheUpdateRequestAsync", "PidFilterData", "ChannelChanged", "TunerStateChanged",
    "BouquetSelectionChanged", "ContentIdChanged", "MrsUrlChanged", "AsyncReleaseFinished",
    "FramesDropped", "BufferingStreamPreloaded", "ActiveStateChanged", "PauseFinished"
};
// clang-format on
static_assert(std::size(names) == UVAEvent::PauseFinished + 1);

std::string nameOf(UVAEvent::Type type) {
    const auto index = static_cast<std::size_t>(type);
    return index < std::size(names) ? names[index]
                                    : "Event" + std::to_string(static_cast<int>(type));
}

std::vector<Argument> argumentsOf(const UVAEvent& event) {
    switch (event.type()) {
    case UVAEvent::BackendResourceRequestAsync:
        return {
            {"audioOnly", static_cast<const BackendResourceRequestAsyncEvent&>(event).audioOnly}};
    case UVAEvent::BackendResourceReleased:
        return {{"audioOnly", static_cast<const BackendResourceReleasedEvent&>(event).audioOnly}};
    case UVAEvent::PlaybackFinished:
        return {number("reason", static_cast<const PlaybackFinishedEvent&>(event).reason)};
    case UVAEvent::DecodeError:
        return {number("reason", static_cast<const DecodeErrorEvent&>(event).reason)};
    case UVAEvent::BufferingNetworkError:
        return {number("reason", static_cast<const BufferingNetworkErrorEvent&>(event).reason)};
    case UVAEvent::CancelDataRequestsAsync:
        return {{"position", static_cast<const CancelDataRequestsAsyncEvent&>(event).position}};
    case UVAEvent::VideoFrameAvailable:
        return {number("frame", static_cast<const VideoFrameAvailableEvent&>(event).frame)};
    case UVAEvent::ActiveStateChanged:
        return {{"active", static_cast<const ActiveStateChangedEvent&>(event).active}};
    case UVAEvent::SeekCompletedEx:
        return {number("outcome",
                       static_cast<int>(static_cast<const SeekCompletedExEvent&>(event).outcome))};
    case UVAEvent::NeedMSEData: {
        const auto& need = static_cast<const NeedMSEDataEvent&>(event);
        return {number("sourceId", need.sourceId), number("samples", need.samplesRequested)};
    }
    case UVAEvent::NewMetadata: {
        const auto& media = static_cast<const NewMetadataEvent&>(event);
        return {{"duration", media.duration},
                number("width", media.width),
                number("height", media.height),
                {"pixelAspectRatio", media.pixelAspectRatio}};
    }
    case UVAEvent::MultiComponentChanged: {
        const auto& change = static_cast<const MultiComponentChangedEvent&>(event);
        return {number("removed", static_cast<long long>(change.removed.size())),
                number("added", static_cast<long long>(change.added.size()))};
    }
    default:
        return {};
    }
}

} // namespace

std::vector<std::string> eventNames() {
    return {std::begin(names), std::end(names)};
}

Record describe(const UVAEvent& event, Clock::time_point delivered) {
    Record record;
    record.kind = Record::Kind::Event;
    record.name = nameOf(event.type());
    record.time = delivered;
    record.arguments = argumentsOf(event);
    return record;
}

} // namespace host
