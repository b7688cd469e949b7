#include "argument_writer.h"

#include "uva/uva_event.h"

namespace record {

void ArgumentWriter::put(const UVABackend::Rect& rect) {
    m_out.list(4);
    for (const int value : {rect.x, rect.y, rect.width, rect.height})
        put(value);
}

void ArgumentWriter::put(const UVABackend::ByteRange& range) {
    m_out.list(2);
    put(range.start);
    put(range.end);
}

void ArgumentWriter::put(const UVABackend::TimeRange& range) {
    m_out.list(2);
    put(range.start);
    put(range.end);
}

void ArgumentWriter::put(const UVAMediaBackend::SpeedRange& range) {
    m_out.list(2);
    put(range.minimum);
    put(range.maximum);
}

void ArgumentWriter::put(const UVATime& time) {
    m_out.list(4);
    for (const double value : {time.position, time.rate, time.timestamp, time.mediaPosition})
        put(value);
}

void ArgumentWriter::put(const UVAKeySystemConfig& config) {
    m_out.list(4);
    put(config.keySystemId);
    put(config.flags);
    m_out.integer(static_cast<std::int64_t>(config.client));
    put(config.value);
}

void ArgumentWriter::put(const UVABackend::ContentDescription& description) {
    const auto& d = description;
    m_out.list(10);
    put(d.type);
    put(d.codecs);
    for (const auto* text : {&d.width, &d.height, &d.framerate, &d.bitrate, &d.channels,
                             &d.cryptoblockformat, &d.drmID, &d.drm_robustness})
        put(*text);
}

void ArgumentWriter::put(const UVABackend::SourceDescription& source) {
    m_out.list(7);
    put(source.type);
    put(source.url);
    put(source.userAgent);
    put(source.sourceId);
    put(source.mimeType);
    put(source.streamType);
    put(source.durationMs);
}

void ArgumentWriter::put(const UVABackend::SourceDescription* source) {
    if (source == nullptr)
        m_out.null();
    else
        put(*source);
}

void ArgumentWriter::put(UVABackend::SourceDescription** sources) {
    if (sources == nullptr)
        return m_out.null();
    std::size_t count = 0;
    while (sources[count] != nullptr)
        ++count;
    m_out.list(count);
    for (std::size_t i = 0; i < count; ++i)
        put(*sources[i]);
}

void ArgumentWriter::put(const UVABackend::AVComponent* component) {
    if (component == nullptr)
        return m_out.null();
    m_out.list(5);
    m_out.id(m_identities.numberOf(component));
    put(component->type);
    put(component->encoding);
    put(component->language);
    put(component->label);
}

void ArgumentWriter::put(const UVAEvent* event) {
    if (event == nullptr)
        return m_out.null();
    if (event->type() != UVAEvent::NeedMSEData)
        return m_out.id(m_identities.numberOf(event, lookOf(*event)));
    const auto& request = static_cast<const NeedMSEDataEvent&>(*event);
    m_out.list(3);
    m_out.id(m_identities.numberOf(event, lookOf(*event)));
    put(request.sourceId);
    put(request.samplesRequested);
}

void ArgumentWriter::put(UVABackend::TimeRange** ranges) {
    if (ranges == nullptr)
        return m_out.null();
    std::size_t count = 0;
    while (ranges[count] != nullptr)
        ++count;
    m_out.list(count);
    for (std::size_t i = 0; i < count; ++i)
        put(*ranges[i]);
}

void ArgumentWriter::put(char** texts) {
    if (texts == nullptr)
        return m_out.null();
    std::size_t count = 0;
    while (texts[count] != nullptr)
        ++count;
    m_out.list(count);
    for (std::size_t i = 0; i < count; ++i)
        put(static_cast<const char*>(texts[i]));
}

void ArgumentWriter::put(const std::map<std::string, std::string>& map) {
    m_out.list(2 * map.size());
    for (const auto& [key, value] : map) {
        put(key);
        put(value);
    }
}

void putMembers(const UVAEvent& event, Encoder& out, ArgumentWriter& arguments) {
    switch (event.type()) {
    case UVAEvent::BackendResourceRequestAsync:
        return out.boolean(static_cast<const BackendResourceRequestAsyncEvent&>(event).audioOnly);
    case UVAEvent::BackendResourceReleased:
        return out.boolean(static_cast<const BackendResourceReleasedEvent&>(event).audioOnly);
    case UVAEvent::DecodeError:
        return out.integer(static_cast<const DecodeErrorEvent&>(event).reason);
    case UVAEvent::BufferingNetworkError:
        return out.integer(static_cast<const BufferingNetworkErrorEvent&>(event).reason);
    case UVAEvent::CancelDataRequestsAsync:
        return out.real(static_cast<const CancelDataRequestsAsyncEvent&>(event).position);
    case UVAEvent::SeekCompletedEx:
        return arguments.put(static_cast<const SeekCompletedExEvent&>(event).outcome);
    case UVAEvent::VideoFrameAvailable:
        return out.integer(static_cast<const VideoFrameAvailableEvent&>(event).frame);
    case UVAEvent::ActiveStateChanged:
        return out.boolean(static_cast<const ActiveStateChangedEvent&>(event).active);
    case UVAEvent::NeedMSEData: {
        const auto& need = static_cast<const NeedMSEDataEvent&>(event);
        out.integer(need.sourceId);
        return out.integer(need.samplesRequested);
    }
    case UVAEvent::PlaybackFinished: {
        const auto& finished = static_cast<const PlaybackFinishedEvent&>(event);
        out.integer(finished.reason);
        return out.integer(finished.detail);
    }
    case UVAEvent::NewMetadata: {
        const auto& media = static_cast<const NewMetadataEvent&>(event);
        out.real(media.duration);
        out.integer(media.width);
        out.integer(media.height);
        return out.real(media.pixelAspectRatio);
    }
    case UVAEvent::MultiComponentChanged: {
        const auto& change = static_cast<const MultiComponentChangedEvent&>(event);
        arguments.put(change.removed);
        return arguments.put(change.added);
    }
    default:
        return;
    }
}

} // namespace record
