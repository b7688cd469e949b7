#ifndef SAMPLE_DECRYPTER_H
#define SAMPLE_DECRYPTER_H

#include "mse/uva_gstcontentprotection.h"

#include <gst/gst.h>

#include <atomic>
#include <memory>
#include <utility>

class MediaSourceGroup;

/// Decrypts the buffers of one media source with the host's content protection. By one thread at a
/// time, which holds no lock: it is the host's code that decrypts.
class SampleDecrypter {
public:
    /// The group outlives the decrypter.
    explicit SampleDecrypter(MediaSourceGroup& group) : m_group(group) {}

    /// Puts a decrypted copy in the place of the payload, and takes the protection off. False: the
    /// buffer stays as it is. It has a protection, and is the caller's alone.
    bool decrypt(GstBuffer* buffer);

    struct Counters {
        guint64 decrypted;
        guint64 failed;
        gint64 busySince; ///< of g_get_monotonic_time(); 0: no sample is with the host
    };
    Counters counters() const { return {m_decrypted, m_failed, m_busySince}; } ///< any thread

    struct FreeContext {
        void operator()(GstUvaDecrypterContext* context) const {
            gst_uva_decrypter_context_free(context);
        }
    };
    using Context = std::unique_ptr<GstUvaDecrypterContext, FreeContext>;
    /// What holds the host's decrypter: with it that goes. The next sample makes another.
    Context release() { return std::move(m_context); }

private:
    bool decryptInPlace(const GstMapInfo& payload, GstBuffer* buffer,
                        const GstUvaContentProtectionMeta& meta);

    bool decryptCopy(GstBuffer* buffer);

    MediaSourceGroup& m_group;
    std::atomic<guint64> m_decrypted{0};
    std::atomic<guint64> m_failed{0};
    std::atomic<gint64> m_busySince{0};
    Context m_context;
    UVADRMBackend* m_drm = nullptr; // whose the context is; not owned
};

#endif
