#include "mse/sample_decrypter.h"

#include "base/glib_lock.h"
#include "base/gst_ptr.h"
#include "base/gstnox_time.h"
#include "mse/media_source_group.h"
#include "timeline/timeline.h"

#include <algorithm>
#include <array>
#include <vector>

namespace {

double secondsIfKnown(GstClockTime time) {
    return time == GST_CLOCK_TIME_NONE ? -1.0 : toSeconds(time);
}

/// Memory for decrypted payloads, lent again when nobody refers to it any more. Sizes are powers of
/// two: no small payload sits in the memory of a large one. Nobody waits for any; what lies idle
/// has a bound. Lives until the process ends: any thread may drop the last buffer.
class PayloadPool {
public:
    static PayloadPool& instance() {
        static auto& pool = *new PayloadPool;
        return pool;
    }

    /// Null when there is none.
    GstPtr<GstMemory> take(gsize size) {
        const std::size_t wanted = g_bit_storage(std::max(size, smallest) - 1);
        GstMemory* memory = takeIdle(wanted);
        if (memory == nullptr)
            memory = gst_allocator_alloc(nullptr, gsize{1} << wanted, nullptr);
        if (memory == nullptr)
            return nullptr;
        memory->mini_object.dispose = comesBack;
        gst_memory_resize(memory, -static_cast<gssize>(memory->offset), size);
        return GstPtr<GstMemory>::adopt(memory);
    }

private:
    static constexpr gsize smallest = 1 << 10; // bytes

    GstMemory* takeIdle(std::size_t wanted) {
        const GLibLock lock(m_lock);
        auto& memories = m_idle.at(wanted);
        if (memories.empty())
            return nullptr;
        GstMemory* memory = memories.back();
        memories.pop_back();
        m_room += memory->maxsize;
        return memory;
    }

    /// Whether it is to be freed.
    static gboolean comesBack(GstMiniObject* object) {
        auto* memory = reinterpret_cast<GstMemory*>(object);
        PayloadPool& pool = instance();
        const GLibLock lock(pool.m_lock);
        if (memory->maxsize > pool.m_room)
            return TRUE;
        gst_memory_ref(memory);
        pool.m_room -= memory->maxsize;
        // The allocator may have given a few bytes more than a power of two.
        pool.m_idle.at(g_bit_storage(memory->maxsize) - 1).push_back(memory);
        return FALSE;
    }

    GLibMutex m_lock; // a leaf
    std::array<std::vector<GstMemory*>, GLIB_SIZEOF_LONG * 8> m_idle GUARDED_BY(m_lock);
    gsize m_room GUARDED_BY(m_lock) = 2 << 20; // bytes
};

} // namespace

bool SampleDecrypter::decrypt(GstBuffer* buffer) {
    const timeline::Span span("decryption", "decrypt");
    m_busySince = g_get_monotonic_time();
    const bool decrypted = decryptCopy(buffer);
    span.with("bytes", gst_buffer_get_size(buffer)).with("decrypted", decrypted);
    m_busySince = 0;
    ++(decrypted ? m_decrypted : m_failed);
    return decrypted;
}

bool SampleDecrypter::decryptCopy(GstBuffer* buffer) {
    auto* meta = gst_buffer_get_content_protection_meta(buffer);
    auto payload = PayloadPool::instance().take(gst_buffer_get_size(buffer));
    GstMapInfo map;
    if (!payload || !gst_memory_map(payload.get(), &map, GST_MAP_READWRITE))
        return false;
    gst_buffer_extract(buffer, 0, map.data, map.size);
    const bool decrypted = decryptInPlace(map, buffer, *meta);
    gst_memory_unmap(payload.get(), &map);
    if (!decrypted)
        return false;
    gst_buffer_replace_all_memory(buffer, payload.release());
    gst_buffer_remove_meta(buffer, &meta->meta);
    return true;
}

bool SampleDecrypter::decryptInPlace(const GstMapInfo& payload, GstBuffer* buffer,
                                     const GstUvaContentProtectionMeta& meta) {
    if (m_context == nullptr || m_drm != meta.drm_backend)
        m_context.reset(gst_uva_decrypter_context_new()); // it stays with its DRM backend
    m_drm = meta.drm_backend;
    return gst_uva_decrypter_context_update(m_context.get(), &meta, m_group.client()) &&
           gst_uva_decrypter_context_software_decrypt_debug(
               m_context.get(), payload.data, payload.size, &meta,
               secondsIfKnown(GST_BUFFER_PTS(buffer)), secondsIfKnown(GST_BUFFER_DTS(buffer)),
               secondsIfKnown(GST_BUFFER_DURATION(buffer)));
}
