#include "uva/uva_media_backend.h"

#include "locks/mutex.h"
#include "nox/screen.h"
#include "uva/uva_client.h"
#include "uva/uva_event.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace {

/// Pictures on their way to the client: one announced at a time, the newest wins.
class Capture {
public:
    explicit Capture(UVAClient* client) : m_client(client) {}

    void start(int width, int height) {
        {
            const locks::Lock lock(m_mutex);
            m_width = width;
            m_height = height;
            m_outstanding = false;
        }
        m_listener = nox::Screen::instance().listen([this] { announce(); });
        nox::Picture shown;
        if (nox::Screen::instance().grab(shown))
            announce(); // a picture that stands still counts too
    }

    void stop() {
        m_listener.reset();
        const locks::Lock lock(m_mutex);
        m_width = m_height = 0;
    }

    bool running() const { return m_listener != nullptr; }

    bool consumed(unsigned int frame, bool wanted) {
        const locks::Lock lock(m_mutex);
        if (!m_outstanding || frame != m_frame)
            return false;
        m_outstanding = !wanted;
        return true;
    }

    void size(int& width, int& height) {
        const locks::Lock lock(m_mutex);
        width = m_width;
        height = m_height;
    }

private:
    void announce() {
        unsigned int frame = 0;
        {
            const locks::Lock lock(m_mutex);
            if (m_outstanding)
                return;
            m_outstanding = true;
            frame = ++m_frame;
        }
        if (m_client != nullptr)
            m_client->deliverEvent(new VideoFrameAvailableEvent(frame));
    }

    UVAClient* const m_client;
    locks::Mutex m_mutex; // nothing is called under it
    int m_width GUARDED_BY(m_mutex) = 0;
    int m_height GUARDED_BY(m_mutex) = 0;
    bool m_outstanding GUARDED_BY(m_mutex) = false;
    unsigned int m_frame GUARDED_BY(m_mutex) = 0;
    std::shared_ptr<void> m_listener; // host thread
};

} // namespace

struct UVAMediaBackend::State {
    explicit State(UVAClient* client) : capture(client) {}

    Capture capture;
    bool active = true;
    std::vector<AVComponent*> externalComponents;
};

UVAMediaBackend::UVAMediaBackend(UVABackendType type, UVAClient* client)
    : UVABackend(type, client), m_state(std::make_unique<State>(client)) {}

UVAMediaBackend::~UVAMediaBackend() {
    m_state->capture.stop();
}

int UVAMediaBackend::initBackend(const char* origin, SourceDescription** sources, bool autoplay) {
    return initBackend(origin, sources, autoplay, false);
}

int UVAMediaBackend::setVideoOutputID(int id) {
    return id == 0 ? Success : Failure; // the set has one output
}

int UVAMediaBackend::getVideoFrame(unsigned char* frame, unsigned int size) {
    if (frame == nullptr)
        return Failure;
    int width = 0;
    int height = 0;
    m_state->capture.size(width, height);
    nox::Picture picture;
    if (!nox::Screen::instance().grab(picture, width, height))
        return NotAvailable;
    if (picture.rgba.size() != size)
        return Failure;
    std::memcpy(frame, picture.rgba.data(), size);
    return Success;
}

int UVAMediaBackend::startCapture(int width, int height) {
    constexpr int largest = 8192; // no picture plane is larger
    if (width <= 0 || height <= 0 || width > largest || height > largest)
        return Failure;
    m_state->capture.start(width, height);
    return Success;
}

int UVAMediaBackend::frameConsumed(unsigned int frame, bool wanted) {
    return m_state->capture.consumed(frame, wanted) ? Success : Failure;
}

int UVAMediaBackend::resourcesReleased(const std::vector<unsigned int>& sources) {
    int result = Success;
    for (const auto id : sources)
        if (!removeSource(id))
            result = Failure;
    return result;
}

int UVAMediaBackend::stopCapture() {
    if (!m_state->capture.running())
        return Failure;
    m_state->capture.stop();
    return Success;
}

int UVAMediaBackend::load() {
    return pause();
}

int UVAMediaBackend::suspend() {
    const int paused = pause();
    const int released = releaseResources(AllResources);
    return paused == Success ? released : paused;
}

int UVAMediaBackend::getStartDate(double& /*seconds*/) {
    return NotAvailable;
}

int UVAMediaBackend::pauseAsync() {
    const int result = pause();
    if (result == Success && m_uvaClient != nullptr)
        m_uvaClient->deliverEvent(new PauseFinishedEvent);
    return result;
}

int UVAMediaBackend::setVolume(double volume) {
    if (std::isnan(volume))
        return Failure;
    nox::Screen::instance().setVolume(std::clamp(volume, 0.0, 1.0));
    return Success;
}

int UVAMediaBackend::getPosition(double& seconds) {
    const UVATime now = getPosition();
    const bool known = now.position >= 0.0;
    seconds = known ? now.position : 0.0;
    return known ? Success : NotAvailable;
}

int UVAMediaBackend::adjustPosition(const UVATime& time) {
    return setPosition(time.position) == 1 ? Success : Failure;
}

int UVAMediaBackend::setVisibility(bool visible) {
    nox::Screen::instance().setVisible(visible);
    return Success;
}

int UVAMediaBackend::getSizeFromDuration(double /*seconds*/, unsigned long long& /*bytes*/) {
    return NotAvailable; // nobody tells the host the size of what the backend fetches
}

int UVAMediaBackend::setCache(bool /*on*/) {
    return Success;
}

int UVAMediaBackend::queue(SourceDescription* /*source*/) {
    return Failure;
}

int UVAMediaBackend::registerExternalComponents(const std::vector<AVComponent*>& components) {
    auto& known = m_state->externalComponents;
    for (auto* component : components)
        if (component != nullptr && std::find(known.begin(), known.end(), component) == known.end())
            known.push_back(component);
    return Success;
}

int UVAMediaBackend::unregisterExternalComponents(const std::vector<AVComponent*>& components) {
    auto& known = m_state->externalComponents;
    int result = Success;
    for (auto* component : components) {
        const auto it = std::find(known.begin(), known.end(), component);
        if (it == known.end())
            result = Failure;
        else
            known.erase(it);
    }
    return result;
}

int UVAMediaBackend::onListenerChanged(const char* name) {
    return name != nullptr ? Success : Failure;
}

int UVAMediaBackend::getBytesInBuffer(unsigned long long& /*bytes*/) {
    return NotAvailable;
}

int UVAMediaBackend::setKeySystem(const char* id) {
    UVAKeySystemConfig config;
    config.keySystemId = id;
    return setKeySystem(config);
}

int UVAMediaBackend::passDataAttribute(const char* name, const char* value) {
    return name != nullptr && value != nullptr ? Success : Failure; // no backend asks for it
}

int UVAMediaBackend::setActive(bool active) {
    if (active == m_state->active)
        return Success;
    m_state->active = active;
    const int result = active ? play() : pause();
    if (m_uvaClient != nullptr)
        m_uvaClient->deliverEvent(new ActiveStateChangedEvent(active));
    return result;
}

int UVAMediaBackend::setPrefs(const std::map<std::string, std::string>& /*prefs*/) {
    return Success;
}
