#ifndef SAMPLE_DECRYPTER_H
#define SAMPLE_DECRYPTER_H

#include "mse/uva_gstcontentprotection.h"

#include <gst/gst.h>

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

    MediaSourceGroup& m_group;
    Context m_context;
    UVADRMBackend* m_drm = nullptr; // whose the context is; not owned
};

#endif
