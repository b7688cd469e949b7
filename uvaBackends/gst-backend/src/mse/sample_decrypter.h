#ifndef SAMPLE_DECRYPTER_H
#define SAMPLE_DECRYPTER_H

#include "mse/uva_gstcontentprotection.h"

#include <gst/gst.h>

#include <memory>

class MediaSourceGroup;

/// Decrypts the buffers of one media source with the host's content protection. By one thread at a
/// time, which holds no lock: it is the host's code that decrypts.
class SampleDecrypter {
public:
    /// The group outlives the decrypter.
    explicit SampleDecrypter(MediaSourceGroup& group) : m_group(group) {}

    /// Puts a decrypted copy in the place of the payload, and takes the protection off. False: the
    /// buffer stays as it is. It is the caller's alone.
    bool decrypt(GstBuffer* buffer);
    /// Gives the host its decrypter back.
    void release() { m_context.reset(); }

private:
    struct FreeContext {
        void operator()(GstUvaDecrypterContext* context) const {
            gst_uva_decrypter_context_free(context);
        }
    };

    bool decryptInPlace(const GstMapInfo& payload, GstBuffer* buffer);

    MediaSourceGroup& m_group;
    std::unique_ptr<GstUvaDecrypterContext, FreeContext> m_context;
    UVADRMBackend* m_drm = nullptr; // whose the context is; not owned
};

#endif
