#include "event_description.h"

#include "uva/uva_event.h"

namespace host {

namespace {

struct EventName {
    UVAEvent::Type type;
    const char* name;
};

#define ROW(type)                                                                                  \
    EventName {                                                                                    \
        UVAEvent::type, #type                                                                      \
    }
constexpr EventName eventNames[] = {
    ROW(BackendResourceRevoked),
    ROW(BackendResourceRequestAsync),
    ROW(BackendResourceReleased),
    ROW(NeedData),
    ROW(NeedMSEData),
    ROW(PlaybackFinished),
    ROW(NewMetadata),
    ROW(NeedKeySystem),
    ROW(DecodeError),
    ROW(VideoFrameAvailable),
    ROW(VideoBufferAvailable),
    ROW(DRMRightsError),
    ROW(ParentalRatingError),
    ROW(ParentalRatingChange),
    ROW(PlaySpeedChanged),
    ROW(BroadcastPlayPositionChanged),
    ROW(BroadcastPlaystateChange),
    ROW(BroadcastSignalStrengthChanged),
    ROW(ChannelChangeError),
    ROW(ChannelChangeSucceeded),
    ROW(ProgrammesChanged),
    ROW(Recording),
    ROW(BufferingProgress),
    ROW(BufferingNetworkError),
    ROW(BufferingIdle),
    ROW(BufferingStreamUnderrun),
    ROW(BufferingStreamBuffered),
    ROW(ConnectionEstablished),
    ROW(ConnectionLost),
    ROW(DeprecatedSubtitlesChanged),
    ROW(ComponentChanged),
    ROW(ExternalComponentActivate),
    ROW(MultiComponentChanged),
    ROW(InBandVTTUpdate),
    ROW(InBandDVBSub),
    ROW(InBandDataUpdate),
    ROW(InBandTTML),
    ROW(InBandRemoveCuesRange),
    ROW(GetCookies),
    ROW(PlaySpeedsArrayChanged),
    ROW(SetCookie),
    ROW(CancelDataRequestsAsync),
    ROW(SeekCompletedEx),
    ROW(CacheUpdateRequestAsync),
    ROW(PidFilterData),
    ROW(ChannelChanged),
    ROW(TunerStateChanged),
    ROW(BouquetSelectionChanged),
    ROW(ContentIdChanged),
    ROW(MrsUrlChanged),
    ROW(AsyncReleaseFinished),
    ROW(FramesDropped),
    ROW(BufferingStreamPreloaded),
    ROW(ActiveStateChanged),
    ROW(PauseFinished),
};
#undef ROW

std::string nameOf(UVAEvent::Type type) {
    for (const auto& row : eventNames)
        if (row.type == type)
            return row.name;
    return "Event" + std::to_string(static_cast<int>(type));
}

Argument number(const char* name, long long value) {
    return {name, value};
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

Record describe(const UVAEvent& event, Clock::time_point delivered) {
    Record record;
    record.kind = Record::Kind::Event;
    record.name = nameOf(event.type());
    record.time = delivered;
    record.arguments = argumentsOf(event);
    return record;
}

} // namespace host
