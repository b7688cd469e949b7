// Media sources. This build plays URLs: a source cannot be attached, so no source id is known.

#include "gstnox_backend.h"

#include "gstnox_plugin.h"
#include "uva/uva_event.h"

#define GST_CAT_DEFAULT gst_backend_debug

int GstNoxBackend::attachSource(SourceDescription* source) {
    const std::unique_ptr<SourceDescription> owned(source);
    if (source != nullptr)
        GST_INFO("type=%d, mime='%s'", source->type, source->mimeType);
    GST_ERROR("***E: cannot create source");
    return Failure;
}

bool GstNoxBackend::removeSource(unsigned int id) {
    GST_INFO("source_id=%u", id);
    return false;
}

int GstNoxBackend::writeData(UVAEvent* event, unsigned int bytes, WriteDataStatus status) {
    const std::unique_ptr<UVAEvent> owned(event);
    if (event == nullptr || event->type() != UVAEvent::NeedMSEData)
        return Success;
    const auto& request = static_cast<const NeedMSEDataEvent&>(*event);
    GST_LOG("id=%u bytes_written=%d, samples_requested=%d, status=%d", request.sourceId,
            static_cast<int>(bytes), request.samplesRequested, static_cast<int>(status));
    GST_WARNING("***E: invalid source_id");
    return Success;
}

int GstNoxBackend::checkNewSegment(unsigned long long* start) {
    if (m_segmentStart == GST_CLOCK_TIME_NONE)
        m_segmentStart = *start;
    else
        *start = m_segmentStart;
    return Success;
}
