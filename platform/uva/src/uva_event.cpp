#include "uva/uva_event.h"

UVAEvent::~UVAEvent() = default;
UVAAsyncEvent::~UVAAsyncEvent() = default;
BackendResourceRequestAsyncEvent::~BackendResourceRequestAsyncEvent() = default;
BackendResourceReleasedEvent::~BackendResourceReleasedEvent() = default;
PlaybackFinishedEvent::~PlaybackFinishedEvent() = default;
NewMetadataEvent::~NewMetadataEvent() = default;
DecodeErrorEvent::~DecodeErrorEvent() = default;
BufferingNetworkErrorEvent::~BufferingNetworkErrorEvent() = default;
BufferingStreamUnderrunEvent::~BufferingStreamUnderrunEvent() = default;
CancelDataRequestsAsyncEvent::~CancelDataRequestsAsyncEvent() = default;
SeekCompletedExEvent::~SeekCompletedExEvent() = default;
VideoFrameAvailableEvent::~VideoFrameAvailableEvent() = default;
AsyncReleaseFinishedEvent::~AsyncReleaseFinishedEvent() = default;
ActiveStateChangedEvent::~ActiveStateChangedEvent() = default;
PauseFinishedEvent::~PauseFinishedEvent() = default;

NeedMSEDataEvent::~NeedMSEDataEvent() {
    for (UVASample** sample = samples; sample != nullptr && *sample != nullptr; ++sample)
        delete *sample;
    delete[] samples;
}

MultiComponentChangedEvent::~MultiComponentChangedEvent() {
    for (auto* component : removed)
        delete component;
}
