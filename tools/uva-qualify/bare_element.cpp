#include "bare_element.h"

#include "host/media_uri.h"
#include "uva/uva_event.h"

#include <memory>
#include <string>

namespace qualify {

namespace {

struct UrlSource final : UVABackend::SourceDescription {
    explicit UrlSource(std::string uri) : text(std::move(uri)) {
        type = BackendStreaming;
        url = text.c_str();
        userAgent = "uva-qualify";
        mimeType = "";
    }
    const std::string text;
};

} // namespace

BareElement::BareElement(const Stage& stage, const Clip& clip) : m_stage(stage) {
    std::promise<bool> promise;
    auto opened = promise.get_future();
    m_stage.loop->post([&] {
        m_backend = m_stage.library->request(UVABackend::VideoElement, this);
        UVABackend::SourceDescription* sources[] = {nullptr, nullptr};
        if (m_backend != nullptr) {
            sources[0] = new UrlSource(host::fileUri(clip.path));
            m_backend->initBackend("", sources, false, false);
        }
        promise.set_value(true);
    });
    opened.wait();
}

BareElement::~BareElement() {
    if (m_backend != nullptr)
        ask([this](UVAMediaBackend& backend) { return m_stage.library->release(&backend); });
}

std::vector<BareElement::Metadata> BareElement::metadata() const {
    const MutexLock lock(m_mutex);
    return m_metadata;
}

std::vector<Clock::time_point> BareElement::ends() const {
    const MutexLock lock(m_mutex);
    return m_ends;
}

void BareElement::deliverEvent(UVAEvent* event) {
    const std::unique_ptr<UVAEvent> owned(event);
    switch (event->type()) {
    case UVAEvent::BackendResourceRequestAsync:
    case UVAEvent::CancelDataRequestsAsync:
        m_backend->eventCompleted(static_cast<const UVAAsyncEvent*>(event), true);
        break;
    case UVAEvent::NewMetadata: {
        const auto& media = static_cast<const NewMetadataEvent&>(*event);
        const MutexLock lock(m_mutex);
        m_metadata.push_back({media.duration, media.width, media.height, media.pixelAspectRatio});
        break;
    }
    case UVAEvent::PlaybackFinished: {
        const MutexLock lock(m_mutex);
        m_ends.push_back(Clock::now());
        break;
    }
    default:
        break;
    }
}

} // namespace qualify
