#include "backend/gstnox_backend.h"

#include "UvaGstIfLowerLayer.h"
#include "backend/gstnox_avcomponent.h"
#include "backend/gstnox_registry.h"
#include "base/gstnox_debug.h"
#include "uva/uva_drm_backend.h"
#include "uva/uva_event.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#define GST_CAT_DEFAULT gst_backend_debug

namespace {

// The set's video output, pixels.
constexpr double outputWidth = 1920.0;
constexpr double outputHeight = 1080.0;

/// Truncates towards zero; what no 32-bit integer is (a logical screen may be empty) is the
/// nearest.
int toInteger(double value) {
    if (std::isnan(value))
        return 0;
    return static_cast<int>(std::clamp(value, static_cast<double>(std::numeric_limits<int>::min()),
                                       static_cast<double>(std::numeric_limits<int>::max())));
}

/// x, y, width, height in pixels of the output, each as its low 16 bits, the most significant byte
/// first.
std::array<unsigned char, 8> windowRequest(const UVABackend::Rect& window, double horizontalFactor,
                                           double verticalFactor) {
    std::array<unsigned char, 8> bytes{};
    auto* next = bytes.begin();
    for (const double value : {window.x * horizontalFactor, window.y * verticalFactor,
                               window.width * horizontalFactor, window.height * verticalFactor}) {
        const auto number = static_cast<unsigned int>(toInteger(value));
        *next++ = static_cast<unsigned char>(number >> 8U);
        *next++ = static_cast<unsigned char>(number);
    }
    return bytes;
}

} // namespace

std::atomic<bool> GstNoxBackend::g_standalone{false};

GstNoxBackend::GstNoxBackend(UVABackendType type, UVAClient* client)
    : UVAMediaBackend(type, client), m_client(client) {
    GST_INFO("type=%d", static_cast<int>(type));
    g_assert(m_client);
    g_standalone = std::getenv("NOX_GST_STANDALONE") != nullptr;
    Registry::instance().add(*this);
}

GstNoxBackend::~GstNoxBackend() {
    ++m_leases; // of what runs here, which shall not delete it once more
    GST_INFO("entry");
    Registry::instance().remove(*this);
    shutDown(); // anew, after release(): a client may have begun something from inside an event
    GST_INFO("done");
}

void GstNoxBackend::shutDown() {
    m_mainSystem.disconnectBackend(&m_control);
    for (const auto& bin : m_sources.all())
        bin->close(); // else their threads decrypt all that is queued before they stop
    m_sources.waitForWriters(nullptr);
    gstPlayerStopAndDestroy();
    m_mainSystem.leave(&m_decoders);
    for (const auto& bin : m_sources.all())
        endBin(bin->id());
}

void GstNoxBackend::release() {
    if (m_life.exchange(Life::Ending) != Life::Used)
        return; // asked again from inside an event that the end has delivered
    shutDown();
    m_life = Life::Over;
    leave();
}

void GstNoxBackend::leave() {
    if (--m_leases == 0)
        delete this;
}

int GstNoxBackend::initBackend(const char* origin, SourceDescription** sources, bool /*autoplay*/,
                               bool audioOnly) {
    const Operation operation(*this);
    GST_INFO("origin='%s' audio_only=%d", origin, audioOnly);
    m_audioOnly = audioOnly;
    if (sources == nullptr) {
        GST_ERROR("***E: no sources");
        return Failure;
    }
    int result = Success;
    int count = 0;
    for (; sources[count] != nullptr; ++count)
        if (initSource(sources[count], count) != Success)
            result = Failure;
    m_mainSystem.connectBackend(&m_control);
    GST_INFO(" number of sources is %d", count);
    changeState(GST_STATE_READY);
    return result;
}

/// Takes ownership of the source.
int GstNoxBackend::initSource(SourceDescription* source, int index) {
    GST_INFO(" source[%d]: type=%d", index, source->type);
    if (source->type == SourceDescription::MseStreaming) {
        GST_INFO("  MSE_STREAMING");
        return attachSource(source);
    }
    const std::unique_ptr<SourceDescription> owned(source);
    if (source->type == SourceDescription::BackendStreaming)
        return initBackendStreaming(*source, index);
    GST_WARNING("***W: source[%d]: type=%d is not handled", index, source->type);
    return Failure;
}

int GstNoxBackend::initBackendStreaming(const SourceDescription& source, int index) {
    GST_INFO("  BACKEND_STREAMING: url='%s'", source.url);
    if (source.url == nullptr) {
        GST_ERROR("***E: source[%d]: no url", index);
        return Failure;
    }
    if (gstPlaybinCreate() != 0)
        return Failure;
    m_pipeline.setUrl(source.url, source.userAgent);
    return Success;
}

int GstNoxBackend::canPlaySource(const SourceDescription& source) {
    GST_INFO("type      = %d", source.type);
    GST_INFO("source_id = %d", source.sourceId);
    GST_INFO("mime_type = %s", source.mimeType);
    return Success;
}

int GstNoxBackend::setLogicalScreenSize(int width, int height) {
    GST_INFO("Logical screen size: %dx%d", width, height);
    m_screenWidth = width;
    m_screenHeight = height;
    return Success;
}

int GstNoxBackend::setFullScreen(bool on) {
    GST_INFO("fullscreen: %d", on);
    m_fullScreen = on;
    return Success;
}

int GstNoxBackend::setVideoWindowAndClip(const Rect& window, const Rect& clip) {
    GST_DEBUG("window: %d,%d %dx%d", window.x, window.y, window.width, window.height);
    GST_DEBUG("clip: %d,%d %dx%d", clip.x, clip.y, clip.width, clip.height);
    const int screenWidth = m_screenWidth;
    const int screenHeight = m_screenHeight;
    GST_DEBUG("client_screen: %dx%d", screenWidth, screenHeight);
    const std::array<unsigned char, 8> request =
        windowRequest(window, outputWidth / screenWidth, outputHeight / screenHeight);
    m_mainSystem.lowerLayer().sendIndicationBuffer(SIG_ID_MPLAYER_SET_WINDOW_REQ, request.data(),
                                                   static_cast<int>(request.size()));
    return Success;
}

int GstNoxBackend::setWindowId(unsigned int id) {
    GST_INFO("window_id=%u", id);
    return Success;
}

int GstNoxBackend::setLoop(int times) {
    GST_ERROR("not supported, value=%d", times);
    return Success;
}

int GstNoxBackend::setKeySystem(const UVAKeySystemConfig& config) {
    GST_INFO("key_system_id: '%s', client = %llu", config.keySystemId,
             static_cast<unsigned long long>(config.client));
    auto next = std::make_shared<MediaSourceGroup::KeySystem>();
    next->client = config.client;
    next->value = config.value;
    bool copied = true;
    if (config.flags == 0 && config.keySystemId != nullptr) {
        next->id.reset(strdup(config.keySystemId));
        copied = next->id != nullptr;
    }
    next->drm = UVA_FindDRMBackend(next->id.get());
    const auto before = m_sourceGroup.keySystem();
    if (!copied && before != nullptr) {
        next->client = before->client;
        next->value = before->value;
    }
    m_sourceGroup.setKeySystem(std::move(next));
    return copied ? Success : 0;
}

// ---- the player

int GstNoxBackend::gstPlaybinCreate() {
    if (!m_pipeline.createPlaybin())
        return -1;
    {
        const GLibLock lock(m_lock);
        m_buffering = {};
    }
    GST_INFO("done (%d)", 0);
    return 0;
}

int GstNoxBackend::gstPlaySinkCreate() {
    if (!m_pipeline.createForMediaSources())
        return -1;
    m_sourceGroup.forgetStart();
    GST_INFO("done (%d)", 0);
    return 0;
}

void GstNoxBackend::gstPlayerStopAndDestroy() {
    GST_DEBUG("playbin=%p, playsink=%p", static_cast<void*>(m_pipeline.element().get()),
              static_cast<void*>(nullptr));
    if (!m_pipeline.isOpen())
        return; // there is none, or the client asks from inside an event that this one delivers
    const Operation operation(*this);
    m_pipeline.writeGraph("nox-stop");
    const DecoderHandshake::Stop stop(m_decoders);
    changeState(GST_STATE_READY);
    m_pipeline.stop();
    GST_DEBUG("going to NULL");
    changeState(GST_STATE_NULL);
    m_pipeline.destroy();
    m_mainSystem.leave(&m_decoders);
    for (const auto& bin : m_sources.all())
        bin->hasEnoughData(); // nobody takes any
    GST_DEBUG("done");
}

/// False when it needs no decoder of the main system's.
bool GstNoxBackend::takeSink(GstElement* sink, DecoderHandshake::SinkOf what) {
    if (g_standalone)
        return false;
    m_decoders.attach(sink, what);
    return true;
}

void GstNoxBackend::askClient() {
    raiseEvent(new BackendResourceRequestAsyncEvent(m_audioOnly), GST_LEVEL_DEBUG, "type=%d",
               m_audioOnly);
}

void GstNoxBackend::tellOfRefusal() {
    raiseEvent(new DecodeErrorEvent(DecodeErrorEvent::InsufficientResources), GST_LEVEL_ERROR,
               "INSUFFICIENT_RESOURCES");
}

int GstNoxBackend::releaseResources() {
    GST_ERROR("lost resources - deprecated");
    return Success;
}

int GstNoxBackend::releaseResources(ResourceType type) {
    GST_ERROR("lost resources: %d", static_cast<int>(type));
    gstPlayerStopAndDestroy();
    return Success;
}

int GstNoxBackend::play() {
    return enterState(GST_STATE_PLAYING, "nox-play");
}

int GstNoxBackend::pause() {
    return enterState(GST_STATE_PAUSED, "nox-pause");
}

int GstNoxBackend::enterState(GstState state, const char* graphName) {
    const Operation operation(*this);
    GST_DEBUG("entry");
    changeState(state);
    m_pipeline.setState(state);
    m_pipeline.writeGraph(graphName);
    GST_DEBUG("exit");
    return Success;
}

int GstNoxBackend::setPlaybackRate(double rate) {
    GST_DEBUG("rate=%5.2f", rate);
    constexpr double tolerance = 0.01;
    return std::abs(rate - 1.0) <= tolerance ? Success : Failure;
}

int GstNoxBackend::getNativeSize(int& width, int& height, double& pixelAspectRatio) {
    const MediaFacts::Size size = m_facts.size();
    width = size.width;
    height = size.height;
    pixelAspectRatio = size.pixelAspectRatio;
    GST_INFO("size=%dx%d par=%5.2f", width, height, pixelAspectRatio);
    return Success;
}

void GstNoxBackend::changeState(GstState state) {
    GstState before = state;
    {
        const GLibLock lock(m_lock);
        std::swap(before, m_state);
    }
    GST_DEBUG("transition %d -> %d", before, state);
    if (timeline::isOn())
        timeline::instant("state", gst_element_state_get_name(state))
            .with("before", gst_element_state_get_name(before));
    if (before != GST_STATE_READY || state <= GST_STATE_READY)
        return;
    raiseEvent(new BufferingStreamUnderrunEvent, GST_LEVEL_DEBUG, "%s", "");
    raiseEvent(new BufferingProgressEvent, GST_LEVEL_DEBUG, "%s", "");
}
