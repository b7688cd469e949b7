#include "backend/gstnox_backend.h"

#include "backend/gstnox_link.h"
#include "base/gstnox_debug.h"
#include "script/script_events.h"
#include "uva/uva_event.h"

#include <cstdarg>
#include <iterator>
#include <string_view>

#define GST_CAT_DEFAULT gst_backend_debug

// The host interface leaves these to the backend that raises the events.
BufferingProgressEvent::~BufferingProgressEvent() = default;
BufferingStreamBufferedEvent::~BufferingStreamBufferedEvent() = default;

namespace {

/// By the host's numbers, from 0 on.
constexpr const char* eventNames[] = {
    "BackendResourceRevoked",
    "BackendResourceRequestAsync",
    "BackendResourceReleased",
    "NeedData",
    "NeedMSEData",
    "PlaybackFinished",
    "NewMetadata",
    "NeedKeySystem",
    "DecodeError",
    "VideoFrameAvailable",
    "VideoBufferAvailable",
    "DRMRightsError",
    "ParentalRatingError",
    "ParentalRatingChange",
    "PlaySpeedChanged",
    "BroadcastPlayPositionChanged",
    "BroadcastPlaystateChange",
    "BroadcastSignalStrengthChanged",
    "ChannelChangeError",
    "ChannelChangeSucceeded",
    "ProgrammesChanged",
    "Recording",
    "BufferingProgress",
    "BufferingNetworkError",
    "BufferingIdle",
    "BufferingStreamUnderrun",
    "BufferingStreamBuffered",
    "ConnectionEstablished",
    "ConnectionLost",
    "DeprecatedSubtitlesChanged",
    "ComponentChanged",
    "ExternalComponentActivate",
    "MultiComponentChanged",
    "InBandVTTUpdate",
    "InBandDVBSub",
    "InBandDataUpdate",
    "InBandTTML",
    "InBandRemoveCuesRange",
    "GetCookies",
    "PlaySpeedsArrayChanged",
    "SetCookie",
    "CancelDataRequestsAsync",
    "SeekCompletedEx",
    "CacheUpdateRequestAsync",
    "PidFilterData",
    "ChannelChanged",
    "TunerStateChanged",
    "BouquetSelectionChanged",
    "ContentIdChanged",
    "MrsUrlChanged",
    "AsyncReleaseFinished",
    "FramesDropped",
    "BufferingStreamPreloaded",
    "ActiveStateChanged",
    "PauseFinished",
};

} // namespace

const char* GstNoxBackend::eventName(int type) {
    constexpr int pastLastNonOoif = 3000;
    if (type == pastLastNonOoif)
        return "PastLastNonOoifEvent";
    const auto index = static_cast<std::size_t>(type);
    return index < std::size(eventNames) ? eventNames[index] : "unknown Event";
}

std::vector<std::string> GstNoxBackend::signalNames() {
    std::vector<std::string> names(std::begin(eventNames), std::end(eventNames));
    for (const char* const own : {"VideoFormat", "AudioFormat", "PipelineError", "DecoderGranted",
                                  "DecoderRefused", "DecoderInterrupted"})
        names.emplace_back(own);
    return names;
}

namespace {

/// From the element that fetches a URL, and about a resource: the network, as the client sees it.
bool isNetworkError(const GError& error, std::string_view element) {
    constexpr int firstCode = GST_RESOURCE_ERROR_FAILED;
    constexpr int lastCode = GST_RESOURCE_ERROR_NOT_AUTHORIZED;
    static_assert(firstCode == 1 && lastCode == 15);
    return element == "source" && error.code >= firstCode && error.code <= lastCode;
}

} // namespace

void GstNoxBackend::raiseEvent(UVAEvent* event, GstDebugLevel level, const char* format, ...) {
    constexpr int levelLimit = 11;
    std::unique_ptr<UVAEvent> owned(event);
    if (m_life == Life::Over)
        return;
    if (level < levelLimit && level <= _gst_debug_min &&
        level <= gst_debug_category_get_threshold(gst_backend_debug)) {
        va_list arguments;
        va_start(arguments, format);
        const GCharPtr message(g_strdup_vprintf(format, arguments));
        va_end(arguments);
        GST_CAT_LEVEL_LOG(gst_backend_debug, level, nullptr, "%s: (%s)", eventName(event->type()),
                          message.get());
    }
    m_events.note(event->type());
    ScriptEvents::instance().publishSignal(eventName(event->type()));
    if (event->type() == UVAEvent::PlaybackFinished)
        m_stateForScripts.set("ended");
    const timeline::Span span("event", eventName(event->type()));
    if (span && event->type() == UVAEvent::NeedMSEData) // which comes back with the samples
        span.flow(timeline::Flow::Start, "samples", timeline::idOf(event));
    m_client->deliverEvent(owned.release());
}

gboolean GstNoxBackend::handleGstMessages(GstMessage* message) {
    const Operation operation(*this);
    switch (GST_MESSAGE_TYPE(message)) {
    case GST_MESSAGE_EOS:
        GST_INFO("End-Of-Stream reached");
        raiseEvent(new PlaybackFinishedEvent(0, 0), GST_LEVEL_DEBUG, "%s", "");
        break;
    case GST_MESSAGE_ERROR:
        handleErrorMessage(message);
        break;
    case GST_MESSAGE_BUFFERING:
        handleBuffering(message);
        break;
    case GST_MESSAGE_STATE_CHANGED:
        handleStateChangedMessage(message);
        break;
    case GST_MESSAGE_APPLICATION:
        handleApplicationMessage(message);
        m_mainSystem.handleApplicationMessage(readApplicationMessage(message), &m_decoders);
        break;
    default:
        break;
    }
    return TRUE;
}

void GstNoxBackend::handleBuffering(GstMessage* message) {
    gint percent = 0;
    gst_message_parse_buffering(message, &percent);
    {
        const GLibLock lock(m_lock);
        const bool isFirst = m_buffering.percent == 100;
        m_buffering = {percent, isFirst ? g_get_monotonic_time() : m_buffering.since};
    }
    raiseEvent(new BufferingProgressEvent, GST_LEVEL_DEBUG, "%d%%", percent);
    if (percent == 100)
        raiseEvent(new BufferingStreamBufferedEvent, GST_LEVEL_DEBUG, "%s", "");
}

void GstNoxBackend::handleStateChangedMessage(GstMessage* message) {
    if (GST_MESSAGE_SRC(message) != GST_OBJECT_CAST(m_pipeline.element().get()))
        return;
    GstState before = GST_STATE_VOID_PENDING;
    GstState now = GST_STATE_VOID_PENDING;
    GstState pending = GST_STATE_VOID_PENDING;
    gst_message_parse_state_changed(message, &before, &now, &pending);
    GST_DEBUG("state changed %d->%d, pending=%d\n", before, now, pending);
    static constexpr const char* names[] = {"pending", "null", "ready", "paused", "playing"};
    m_stateForScripts.set(names[now]);
}

void GstNoxBackend::handleErrorMessage(GstMessage* message) {
    GError* parsedError = nullptr;
    gchar* parsedDebug = nullptr;
    gst_message_parse_error(message, &parsedError, &parsedDebug);
    const GErrorPtr error(parsedError);
    const GCharPtr debugText(parsedDebug);
    const char* debug = debugText ? debugText.get() : "";
    const GCharPtr elementName(GST_MESSAGE_SRC(message) != nullptr
                                   ? gst_object_get_name(GST_MESSAGE_SRC(message))
                                   : nullptr);
    const char* element = elementName ? elementName.get() : "";

    GST_ERROR("Error received from element '%s': %s (%d)", element, error->message, error->code);
    GST_ERROR("Debugging information: %s", debug);
    {
        const GLibLock lock(m_lock);
        m_lastError = {std::string(element) + ": " + error->message, g_get_monotonic_time()};
    }
    m_pipeline.writeGraph("gstbackend-error");
    ScriptEvents::instance().publishSignal("PipelineError", [&] {
        return ScriptValue{{"element", element}, {"text", error->message}};
    });
    m_stateForScripts.set("failed");
    const char* domain = g_quark_to_string(error->domain);
    GST_WARNING("***W: %s: %s (%d) (%s)", domain, error->message, error->code, debug);
    if (error->domain == GST_RESOURCE_ERROR) {
        if (isNetworkError(*error, element))
            raiseEvent(new BufferingNetworkErrorEvent(BufferingNetworkErrorEvent::SourceFailed),
                       GST_LEVEL_ERROR, "GST_RESOURCE_ERROR:%d", error->code);
        return;
    }
    // These raise no event: a decoding failure inside GStreamer is not the client's matter.
    if (error->domain == GST_CORE_ERROR || error->domain == GST_LIBRARY_ERROR ||
        error->domain == GST_STREAM_ERROR)
        return;
    GST_ERROR("Unhandled error message! Unknown error domain: '%s'", domain);
}

void GstNoxBackend::handleApplicationMessage(GstMessage* message) {
    const GstStructure* structure = gst_message_get_structure(message);
    if (structure == nullptr)
        return;
    const std::string_view name = gst_structure_get_name(structure);
    GST_DEBUG("got application message: %s", name.data());
    if (name == "GstNoxVideoFormat") {
        ScriptEvents::instance().publishSignal("VideoFormat");
        handleVideoFormat(structure);
    } else if (name == "GstNoxAudioFormat") {
        ScriptEvents::instance().publishSignal("AudioFormat");
        m_pipeline.writeGraph("nox-anfy");
    } else if (name == "GstNoxDecoderNeeded")
        handleDecoderNeeded(structure);
}

void GstNoxBackend::handleVideoFormat(const GstStructure* format) {
    int width = 0;
    int height = 0;
    int numerator = 0;
    int denominator = 0;
    if (gst_structure_get_int(format, "width", &width) &&
        gst_structure_get_int(format, "height", &height)) {
        setMetaData(width, height);
        if (gst_structure_get_fraction(format, "display-aspect-ratio", &numerator, &denominator))
            setMetaData((static_cast<double>(numerator) * height) /
                        (static_cast<double>(denominator) * width));
    }
    if (gst_structure_get_fraction(format, "frame-rate", &numerator, &denominator))
        m_facts.setFrameRate(static_cast<double>(numerator) / static_cast<double>(denominator));
    checkMetaDataChanged();
    m_pipeline.writeGraph("nox-vnfy");
}

void GstNoxBackend::handleDecoderNeeded(const GstStructure* structure) {
    const gchar* text = gst_structure_get_string(structure, "type");
    if (text == nullptr)
        return;
    const int needed = m_decoders.noteNeed(text);
    GST_DEBUG("m_resources_needed: %d", needed);
    if (text[0] == '-' && needed == 0)
        raiseEvent(new BackendResourceReleasedEvent(m_audioOnly), GST_LEVEL_DEBUG, "type=%d",
                   m_audioOnly);
}

void GstNoxBackend::checkMetaDataChanged() {
    const auto change = m_facts.takeChange();
    if (!change)
        return;
    const auto& [width, height, ratio] = change->size;
    raiseEvent(new NewMetadataEvent(change->seconds, width, height, ratio), GST_LEVEL_DEBUG,
               "dur=%f size=%dx%d par=%f", change->seconds, width, height, ratio);
}

int GstNoxBackend::eventCompleted(const UVAAsyncEvent* event, bool success) {
    if (event == nullptr) {
        GST_WARNING("***W: no event");
        return Failure;
    }
    GST_DEBUG("ev = %d", event->type());
    const timeline::Span span("uva", "eventCompleted");
    span.with("event", eventName(event->type())).with("success", success);
    switch (event->type()) {
    case UVAEvent::BackendResourceRequestAsync:
        GST_INFO("BackendResourceRequestAsync finished (success=%d)", success);
        m_decoders.completeRequest(success);
        return Success;
    case UVAEvent::CancelDataRequestsAsync:
        completeSeek(event);
        return Success;
    default:
        GST_WARNING("Unsupported async event (%d) received!", event->type());
        return Failure;
    }
}
