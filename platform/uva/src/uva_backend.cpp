#include "uva/uva_backend.h"

#include "uva/uva_client.h"
#include "uva/uva_event.h"

#include <cstdlib>

UVABackend::SourceDescription::~SourceDescription() = default;

UVABackend::AVComponent::AVComponent(int componentType, const char* componentEncoding,
                                     const char* componentLanguage, const char* componentLabel)
    : type(componentType), encoding(componentEncoding), language(componentLanguage),
      label(componentLabel) {}

UVABackend::AVComponent::~AVComponent() {
    std::free(channel);
}

UVABackend::UVABackend(UVABackendType type, UVAClient* client)
    : m_type(type), m_uvaClient(client) {}

UVABackend::~UVABackend() = default;

unsigned int UVABackend::getCapabilities() {
    constexpr unsigned int capture = 1U << 0;
    constexpr unsigned int volume = 1U << 1;
    return capture | volume;
}

std::string UVABackend::getTimelineDetails(const std::string& /*selector*/) {
    return {}; // broadcast timelines only
}

int UVABackend::setWindowId(unsigned int /*id*/) {
    return Success;
}

int UVABackend::setLogicalScreenSize(int width, int height) {
    return width > 0 && height > 0 ? Success : Failure;
}

// A backend that never asks for cookies has no request that an answer could belong to.
int UVABackend::responseFromGetCookiesEvent(const char* /*cookies*/, unsigned int /*request*/) {
    return Failure;
}

int UVABackend::responseFromSetCookieEvent(bool /*stored*/, unsigned int /*request*/) {
    return Failure;
}

int UVABackend::eventCompleted(const UVAAsyncEvent* /*event*/, bool /*success*/) {
    return Failure;
}

int UVABackend::releaseResources(ResourceType /*type*/) {
    return Success;
}

int UVABackend::releaseResources() {
    return releaseResources(AllResources);
}

int UVABackend::releaseBackendAsynchronously() {
    const int result = releaseResources(AllResources);
    if (m_uvaClient != nullptr)
        m_uvaClient->deliverEvent(new AsyncReleaseFinishedEvent);
    return result;
}
