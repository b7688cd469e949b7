#include "backend/gstnox_backend.h"

#include "backend/gstnox_link.h"
#include "base/gstnox_debug.h"
#include "uva/uva_event.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <string_view>

#define GST_CAT_DEFAULT gst_backend_debug

// The host interface leaves these to the backend that raises the events.
BufferingProgressEvent::~BufferingProgressEvent() = default;
BufferingStreamBufferedEvent::~BufferingStreamBufferedEvent() = default;

namespace {

struct EventName {
    int type;
    const char* name;
};

constexpr std::array eventNames{
    EventName{0, "BackendResourceRevoked"},
    EventName{1, "BackendResourceRequestAsync"},
    EventName{2, "BackendResourceReleased"},
    EventName{3, "NeedData"},
    EventName{4, "NeedMSEData"},
    EventName{5, "PlaybackFinished"},
    EventName{6, "NewMetadata"},
    EventName{7, "NeedKeySystem"},
    EventName{8, "DecodeError"},
    EventName{9, "VideoFrameAvailable"},
    EventName{10, "VideoBufferAvailable"},
    EventName{11, "DRMRightsError"},
    EventName{12, "ParentalRatingError"},
    EventName{13, "ParentalRatingChange"},
    EventName{14, "PlaySpeedChanged"},
    EventName{15, "BroadcastPlayPositionChanged"},
    EventName{16, "BroadcastPlaystateChange"},
    EventName{17, "BroadcastSignalStrengthChanged"},
    EventName{18, "ChannelChangeError"},
    EventName{19, "ChannelChangeSucceeded"},
    EventName{20, "ProgrammesChanged"},
    EventName{21, "Recording"},
    EventName{22, "BufferingProgress"},
    EventName{23, "BufferingNetworkError"},
    EventName{24, "BufferingIdle"},
    EventName{25, "BufferingStreamUnderrun"},
    EventName{26, "BufferingStreamBuffered"},
    EventName{27, "ConnectionEstablished"},
    EventName{28, "ConnectionLost"},
    EventName{29, "DeprecatedSubtitlesChanged"},
    EventName{30, "ComponentChanged"},
    EventName{31, "ExternalComponentActivate"},
    EventName{32, "MultiComponentChanged"},
    EventName{33, "InBandVTTUpdate"},
    EventName{34, "InBandDVBSub"},
    EventName{35, "InBandDataUpdate"},
    EventName{36, "InBandTTML"},
    EventName{37, "InBandRemoveCuesRange"},
    EventName{38, "GetCookies"},
    EventName{39, "PlaySpeedsArrayChanged"},
    EventName{40, "SetCookie"},
    EventName{41, "CancelDataRequestsAsync"},
    EventName{42, "SeekCompletedEx"},
    EventName{43, "CacheUpdateRequestAsync"},
    EventName{44, "PidFilterData"},
    EventName{45, "ChannelChanged"},
    EventName{46, "TunerStateChanged"},
    EventName{47, "BouquetSelectionChanged"},
    EventName{48, "ContentIdChanged"},
    EventName{49, "MrsUrlChanged"},
    EventName{50, "AsyncReleaseFinished"},
    EventName{51, "FramesDropped"},
    EventName{52, "BufferingStreamPreloaded"},
    EventName{53, "ActiveStateChanged"},
    EventName{54, "PauseFinished"},
    EventName{3000, "PastLastNonOoifEvent"},
    EventName{9000, "unknown Event"},
};

const char* eventName(int type) {
    const auto* last = eventNames.end() - 1;
    return std::find_if(eventNames.begin(), last,
                        [type](const EventName& row) { return row.type == type; })
        ->name;
}

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
    m_pipeline.writeGraph("gstbackend-error");
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
    if (name == "GstNoxVideoFormat")
        handleVideoFormat(structure);
    else if (name == "GstNoxAudioFormat")
        m_pipeline.writeGraph("nox-anfy");
    else if (name == "GstNoxDecoderNeeded")
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
