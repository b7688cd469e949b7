// Media sources: the operations of the host and the callbacks of the appsrcs, each for the bin that
// it is about.

#include "backend/gstnox_backend.h"
#include "mse/gstnox_msebin.h"
#include "plugin/gstnox_plugin.h"
#include "base/gstnox_time.h"
#include "uva/uva_event.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

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
                 GST_TIME_ARGS(forLog(duration())));
    const bool durationKnown = source->durationMs > 0;
    const auto bin = std::make_shared<GstMseBin>(this, source);
    if ((!m_pipeline && gstPlaySinkCreate() != 0) || !bin->Create()) {
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
    if (const auto old = takeBin(bin->id())) {
        GST_ERROR("***E: source already exists - deleting...");
        old->Destroy();
    }
    if (!g_standalone) {
        m_decoders.watch(bin->sink());
        g_signal_connect(bin->sink(), "decoder-request", G_CALLBACK(source_decoder_request_cb),
                         this);
    }
    gst_bin_add(GST_BIN(m_pipeline.get()), bin->element());
    {
        const GLibLock lock(m_lock);
        if (std::string_view(bin->kind) == "audio")
            m_audioSink = GstPtr<GstElement>::retain(bin->sink());
        m_bins[bin->id()] = bin;
    }
    writeGraph("nox-attach");
}

/// One decoder of a kind: the source that had it stops.
void GstNoxBackend::checkComponent(const GstMseBin& starting) {
    for (const auto& bin : bins()) {
        const bool sameKind = std::string_view(bin->kind) == starting.kind;
        if (bin.get() == &starting || !sameKind || !bin->isActive())
            continue;
        GST_WARNING("found running component of type '%s' (%s): stop it", bin->kind,
                    bin->name.get());
        bin->stop();
    }
}

bool GstNoxBackend::removeSource(unsigned int id) {
    GST_INFO("source_id=%u", id);
    const auto bin = takeBin(id);
    if (bin == nullptr)
        return false;
    bin->close(); // else a writer decrypts all that is queued before it leaves
    waitForWriters(bin.get());
    bin->Destroy();
    const GLibLock lock(m_lock);
    if (m_audioSink.get() == bin->sink())
        m_audioSink.reset();
    return true;
}

/// A thread in writeData, which may decrypt there. Neither the source nor the backend goes before
/// it has left.
class GstNoxBackend::Writer {
public:
    Writer(GstNoxBackend& backend, const GstMseBin& writtenTo)
        : bin(&writtenTo), thread(g_thread_self()), m_backend(backend) {
        const GLibLock lock(m_backend.m_lock);
        m_backend.m_writers.push_back(this);
    }
    ~Writer() {
        const GLibLock lock(m_backend.m_lock);
        auto& writers = m_backend.m_writers;
        writers.erase(std::find(writers.begin(), writers.end(), this));
        m_backend.m_condition.broadcast();
    }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    const GstMseBin* const bin;
    GThread* const thread;

private:
    GstNoxBackend& m_backend;
};

void GstNoxBackend::waitForWriters(const GstMseBin* bin) {
    const GLibLock lock(m_lock);
    const auto isWaitedFor = [&](const Writer* writer) {
        return writer->thread != g_thread_self() && (bin == nullptr || writer->bin == bin);
    };
    while (std::any_of(m_writers.begin(), m_writers.end(), isWaitedFor))
        m_condition.wait(m_lock);
}

int GstNoxBackend::writeData(UVAEvent* event, unsigned int bytes, WriteDataStatus status) {
    const std::unique_ptr<UVAEvent> owned(event);
    if (event == nullptr || event->type() != UVAEvent::NeedMSEData)
        return Success;
    const auto& request = static_cast<const NeedMSEDataEvent&>(*event);
    GST_LOG("id=%u bytes_written=%d, samples_requested=%d, status=%d", request.sourceId,
            static_cast<int>(bytes), request.samplesRequested, static_cast<int>(status));
    const auto bin = findBin(request.sourceId);
    if (bin == nullptr) {
        GST_WARNING("***E: invalid source_id");
        return Success;
    }
    const Writer writer(*this, *bin);
    if (status == Data)
        bin->write(request.samples);
    else if (status == EndOfStream)
        bin->writeEndOfStream();
    raiseEvent(new BufferingStreamBufferedEvent, GST_LEVEL_LOG, "%s", "");
    return Success;
}

int GstNoxBackend::checkNewSegment(unsigned long long* start) {
    const GLibLock lock(m_lock);
    if (m_segmentStart == GST_CLOCK_TIME_NONE)
        m_segmentStart = *start;
    else
        *start = m_segmentStart;
    return Success;
}

// ---- the map

std::shared_ptr<GstNoxBackend::GstMseBin> GstNoxBackend::findBin(unsigned int id) {
    const GLibLock lock(m_lock);
    const auto found = m_bins.find(id);
    return found != m_bins.end() ? found->second : nullptr;
}

std::shared_ptr<GstNoxBackend::GstMseBin> GstNoxBackend::takeBin(unsigned int id) {
    const GLibLock lock(m_lock);
    const auto node = m_bins.extract(id);
    return node.empty() ? nullptr : node.mapped();
}

std::vector<std::shared_ptr<GstNoxBackend::GstMseBin>> GstNoxBackend::bins() {
    const GLibLock lock(m_lock);
    std::vector<std::shared_ptr<GstMseBin>> all;
    for (const auto& [id, bin] : m_bins)
        all.push_back(bin);
    return all;
}

std::shared_ptr<const GstNoxBackend::KeySystem> GstNoxBackend::keySystem() {
    const GLibLock lock(m_lock);
    return m_keySystem;
}

// ---- streaming threads

void GstNoxBackend::need_data_cb(GstAppSrc* appsrc, guint /*length*/, gpointer backend) {
    GST_LOG("(%s)", GST_OBJECT_NAME(appsrc));
    auto* self = static_cast<GstNoxBackend*>(backend);
    const unsigned int id = sourceIdOf(appsrc);
    const auto bin = self->findBin(id);
    if (bin != nullptr && bin->needsData())
        self->askForData(id);
}

void GstNoxBackend::askForData(unsigned int id) {
    raiseEvent(new NeedMSEDataEvent(id, samplesToAskFor), GST_LEVEL_LOG, "id=%d, samples=%d",
               static_cast<int>(id), samplesToAskFor);
}

void GstNoxBackend::enough_data_cb(GstAppSrc* appsrc, gpointer backend) {
    GST_LOG("(%s)", GST_OBJECT_NAME(appsrc));
    if (const auto bin = static_cast<GstNoxBackend*>(backend)->findBin(sourceIdOf(appsrc)))
        bin->hasEnoughData();
}

gboolean GstNoxBackend::seek_data_cb(GstAppSrc* appsrc, guint64 offset, gpointer backend) {
    GST_DEBUG("offset=%" GST_TIME_FORMAT, GST_TIME_ARGS(offset));
    auto* self = static_cast<GstNoxBackend*>(backend);
    const auto bin = self->findBin(sourceIdOf(appsrc));
    if (bin == nullptr || !bin->seek())
        return TRUE;
    const GLibLock lock(self->m_lock);
    self->m_segmentStart = GST_CLOCK_TIME_NONE;
    return TRUE;
}
