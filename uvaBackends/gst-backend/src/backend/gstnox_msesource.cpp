// Media sources: the operations of the host and the callbacks of the appsrcs, each for the bin that
// it is about.

#include "backend/gstnox_backend.h"
#include "base/gstnox_debug.h"
#include "base/gstnox_time.h"
#include "uva/uva_event.h"

#include <cstdlib>
#include <cstring>

#define GST_CAT_DEFAULT gst_backend_debug

namespace {

constexpr int samplesToAskFor = 30;

/// "appsrc_2": the number behind the first "_".
unsigned int sourceIdOf(GstAppSrc* appsrc) {
    const char* number = std::strchr(GST_OBJECT_NAME(appsrc), '_');
    return number != nullptr ? static_cast<unsigned int>(std::strtoul(number + 1, nullptr, 10)) : 0;
}

} // namespace

int GstNoxBackend::attachSource(SourceDescription* source) {
    if (source == nullptr) {
        GST_ERROR("***E: cannot create source");
        return Failure;
    }
    GST_INFO("type=%d, mime='%s'", source->type, source->mimeType);
    const double seconds = static_cast<double>(source->durationMs) / 1000.0;
    if (source->type == SourceDescription::MseStreaming)
        GST_INFO("  MSE_STREAMING: id=%u duration=%lf m_duration=%" GST_TIME_FORMAT,
                 static_cast<unsigned int>(source->sourceId), seconds,
                 GST_TIME_ARGS(forLog(m_facts.duration())));
    const Operation operation(*this);
    const bool durationKnown = source->durationMs > 0;
    const auto bin = std::make_shared<GstMseBin>(m_sourceGroup, source);
    GstAppSrcCallbacks callbacks{};
    callbacks.need_data = need_data_cb;
    callbacks.enough_data = enough_data_cb;
    callbacks.seek_data = seek_data_cb;
    if ((!m_pipeline.element() && gstPlaySinkCreate() != 0) || !bin->Create(callbacks, this)) {
        GST_ERROR("***E: cannot create source");
        return Failure;
    }
    addBin(bin);
    checkComponent(*bin);
    gst_element_sync_state_with_parent(bin->element());

    const double position = getPosition().position;
    if (position > 0) {
        GST_DEBUG("  seeking to %" GST_TIME_FORMAT, GST_TIME_ARGS(m_seek.position()));
        setPosition(position);
    }
    if (durationKnown)
        changeDuration(seconds);
    return Success;
}

/// Puts the bin into the pipeline and the map, in place of one with its id.
void GstNoxBackend::addBin(const std::shared_ptr<GstMseBin>& bin) {
    if (m_sources.find(bin->id()) != nullptr) {
        GST_ERROR("***E: source already exists - deleting...");
        endBin(bin->id());
    }
    takeSink(bin->sink(), DecoderHandshake::SinkOf::MediaSource);
    gst_bin_add(GST_BIN(m_pipeline.element().get()), bin->element());
    if (bin->kind == MediaKind::Audio)
        m_pipeline.setAudioSink(bin->sink());
    m_sources.add(bin);
    m_pipeline.writeGraph("nox-attach");
}

/// One decoder of a kind: the source that had it stops.
void GstNoxBackend::checkComponent(const GstMseBin& starting) {
    for (const auto& bin : m_sources.all()) {
        if (bin.get() == &starting || bin->kind != starting.kind || !bin->isActive())
            continue;
        GST_WARNING("found running component of type '%s' (%s): stop it", nameOf(bin->kind),
                    bin->name.get());
        const DecoderHandshake::Stop ending(m_decoders, bin->sink());
        bin->stop();
    }
}

bool GstNoxBackend::removeSource(unsigned int id) {
    GST_INFO("source_id=%u", id);
    return endBin(id);
}

/// Waits for writers, and for the streaming thread, which may be waiting for a decoder.
bool GstNoxBackend::endBin(unsigned int id) {
    const auto bin = m_sources.take(id);
    if (bin == nullptr)
        return false;
    bin->close(); // else a writer decrypts all that is queued before it leaves
    m_sources.waitForWriters(bin.get());
    {
        const DecoderHandshake::Stop ending(m_decoders, bin->sink());
        bin->Destroy();
    }
    m_pipeline.forgetAudioSink(bin->sink());
    return true;
}

int GstNoxBackend::writeData(UVAEvent* event, unsigned int bytes, WriteDataStatus status) {
    const std::unique_ptr<UVAEvent> owned(event);
    if (event == nullptr || event->type() != UVAEvent::NeedMSEData)
        return Success;
    const auto& request = static_cast<const NeedMSEDataEvent&>(*event);
    GST_LOG("id=%u bytes_written=%d, samples_requested=%d, status=%d", request.sourceId,
            static_cast<int>(bytes), request.samplesRequested, static_cast<int>(status));
    const auto bin = m_sources.find(request.sourceId);
    if (bin == nullptr) {
        GST_WARNING("***E: invalid source_id");
        return Success;
    }
    const Operation operation(*this);
    operation.span().with("source", bin->name.get()).with("status", static_cast<int>(status));
    if (request.samplesRequested > 0) // else nobody has asked
        operation.span().flow(timeline::Flow::End, "samples", timeline::idOf(event));
    const MediaSources::Visit visit(m_sources, MediaSources::Visit::Write, bin.get());
    if (status == Data)
        bin->write(request.samples);
    else if (status == EndOfStream)
        bin->writeEndOfStream();
    raiseEvent(new BufferingStreamBufferedEvent, GST_LEVEL_LOG, "%s", "");
    return Success;
}

int GstNoxBackend::checkNewSegment(unsigned long long* start) {
    *start = m_sourceGroup.agreeOnStart(*start);
    return Success;
}

// ---- streaming threads

/// Null when it is gone.
std::shared_ptr<GstMseBin> GstNoxBackend::binOf(GstAppSrc* appsrc, gpointer backend) {
    return static_cast<GstNoxBackend*>(backend)->m_sources.find(sourceIdOf(appsrc));
}

void GstNoxBackend::need_data_cb(GstAppSrc* appsrc, guint /*length*/, gpointer backend) noexcept {
    GST_LOG("(%s)", GST_OBJECT_NAME(appsrc));
    const timeline::Span span("feeding", "need data");
    span.with("source", GST_OBJECT_NAME(appsrc));
    guarded("need-data", [=] {
        auto* self = static_cast<GstNoxBackend*>(backend);
        const auto bin = binOf(appsrc, backend);
        const MediaSources::Visit visit(self->m_sources, MediaSources::Visit::Request);
        if (bin != nullptr && bin->needsData())
            self->askForData(bin->id());
    });
}

void GstNoxBackend::askForData(unsigned int id) {
    raiseEvent(new NeedMSEDataEvent(id, samplesToAskFor), GST_LEVEL_LOG, "id=%d, samples=%d",
               static_cast<int>(id), samplesToAskFor);
}

void GstNoxBackend::enough_data_cb(GstAppSrc* appsrc, gpointer backend) noexcept {
    GST_LOG("(%s)", GST_OBJECT_NAME(appsrc));
    if (timeline::isOn())
        timeline::instant("feeding", "enough data").with("source", GST_OBJECT_NAME(appsrc));
    guarded("enough-data", [=] {
        if (const auto bin = binOf(appsrc, backend))
            bin->hasEnoughData();
    });
}

gboolean GstNoxBackend::seek_data_cb(GstAppSrc* appsrc, guint64 offset, gpointer backend) noexcept {
    GST_DEBUG("offset=%" GST_TIME_FORMAT, GST_TIME_ARGS(offset));
    guarded("seek-data", [=] {
        const auto bin = binOf(appsrc, backend);
        if (bin != nullptr && bin->seek())
            static_cast<GstNoxBackend*>(backend)->m_sourceGroup.forgetStart();
    });
    return TRUE;
}
