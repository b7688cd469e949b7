#include "mse/sample_decrypter.h"

#include "base/gstnox_time.h"
#include "mse/media_source_group.h"

namespace {

double toSeconds(GstClockTime time) {
    return time == GST_CLOCK_TIME_NONE ? -1.0 : static_cast<double>(time) / nanosecondsPerSecond;
}

} // namespace

GstPtr<GstBuffer> SampleDecrypter::decrypt(GstBuffer* buffer) {
    const auto* meta = gst_buffer_get_content_protection_meta(buffer);
    auto copy = GstPtr<GstBuffer>::adopt(gst_buffer_new());
    gst_buffer_copy_into(
        copy.get(), buffer,
        static_cast<GstBufferCopyFlags>(GST_BUFFER_COPY_FLAGS | GST_BUFFER_COPY_TIMESTAMPS |
                                        GST_BUFFER_COPY_MEMORY | GST_BUFFER_COPY_DEEP),
        0, static_cast<gsize>(-1));
    return decryptInPlace(copy.get(), buffer, *meta) ? copy : nullptr;
}

bool SampleDecrypter::decryptInPlace(GstBuffer* copy, const GstBuffer* buffer,
                                     const GstUvaContentProtectionMeta& meta) {
    GstMapInfo map;
    if (!gst_buffer_map(copy, &map, GST_MAP_READWRITE))
        return false;
    if (m_context == nullptr || m_drm != meta.drm_backend)
        m_context.reset(gst_uva_decrypter_context_new()); // it stays with its DRM backend
    m_drm = meta.drm_backend;
    const auto keySystem = m_group.keySystem();
    const bool decrypted =
        gst_uva_decrypter_context_update(m_context.get(), &meta,
                                         keySystem != nullptr ? keySystem->client : 0) &&
        gst_uva_decrypter_context_software_decrypt_debug(
            m_context.get(), map.data, map.size, &meta, toSeconds(GST_BUFFER_PTS(buffer)),
            toSeconds(GST_BUFFER_DTS(buffer)), toSeconds(GST_BUFFER_DURATION(buffer)));
    gst_buffer_unmap(copy, &map);
    return decrypted;
}
