#ifndef UVA_GSTCONTENTPROTECTION_H
#define UVA_GSTCONTENTPROTECTION_H

#include <gst/gst.h>

class UVADRMBackend;

/// Creates the debug category "gstuvacontentprotectionhandler" unless it exists. True.
bool InitializeLogging();

/// What an encrypted buffer needs to be decrypted (ISO/IEC 23001-7). Owns its copies of the key
/// system, key id and IV and a reference to the array; all go with the buffer.
struct GstUvaContentProtectionMeta {
    GstMeta meta;
    gchar* key_system;
    guint8* key_id;
    gsize key_id_size; ///< bytes
    guint8* iv;
    gsize iv_size;       ///< bytes
    GArray* subsamples;  ///< of GstUvaSubsample: the encrypted ranges, in order
    gboolean flag;       ///< host-defined, passed through
    UVADRMBackend* drm_backend; ///< not owned
    guint32 valid;       ///< 1 once filled
};

/// An encrypted range of a sample, bytes.
struct GstUvaSubsample {
    guint32 offset;
    guint32 length;
};

/// Turns the meta of samples into a decrypter of the host, which is kept while the key stays the
/// same. Used by one thread at a time.
struct GstUvaDecrypterContext;

/// Bits of the flags of gst_uva_decrypter_context_decrypt().
enum : guint {
    GST_UVA_DECRYPT_FIRST = 1,
    GST_UVA_DECRYPT_LAST = 2,
    GST_UVA_DECRYPT_EXTRA = 4, ///< host-defined, passed through
};

#pragma GCC visibility push(default) // for other elements of the set; see the export list

extern "C" {

/// Attaches a meta to a buffer that has none, which is asserted. (Copying a buffer into one that has a
/// meta leaves that one alone.) Copies the texts and bytes, takes the caller's reference to the array
/// (may be null). The meta belongs to the buffer.
GstUvaContentProtectionMeta*
gst_buffer_add_content_protection_meta(GstBuffer* buffer, const gchar* keySystem,
                                       const guint8* keyId, size_t keyIdSize, const guint8* iv,
                                       size_t ivSize, GArray* subsamples, gboolean flag,
                                       UVADRMBackend* drmBackend);
GstUvaContentProtectionMeta* gst_buffer_get_content_protection_meta(GstBuffer* buffer);
void gst_buffer_remove_content_protection_meta(GstBuffer* buffer);

GstUvaDecrypterContext* gst_uva_decrypter_context_new();
/// Gives the decrypter back first; null is fine.
void gst_uva_decrypter_context_free(GstUvaDecrypterContext* context);
/// Gives the decrypter back.
void gst_uva_decrypter_context_reset(GstUvaDecrypterContext* context);

/// Gets the decrypter for the meta's key; `value` is the host's and passed through. FALSE when the
/// host has none. A context never changes its DRM backend.
gboolean gst_uva_decrypter_context_update(GstUvaDecrypterContext* context,
                                          const GstUvaContentProtectionMeta* meta, guint64 value);

/// Decrypts one range, in place if both are the same. A null IV goes on where the range before
/// ended. FALSE on failure.
gboolean gst_uva_decrypter_context_decrypt(GstUvaDecrypterContext* context, const guint8* iv,
                                           gsize ivSize, const guint8* in, gsize inSize,
                                           guint8* out, gsize outSize, guint flags);

/// Where a hardware path finds the key. FALSE when the host does not tell.
gboolean gst_uva_decrypter_context_get_key_slot(GstUvaDecrypterContext* context, guint32* slot);

/// Decrypts the encrypted ranges of a sample in place. FALSE on failure; nothing outside the data
/// is touched, whatever the ranges say.
gboolean gst_uva_decrypter_context_software_decrypt(GstUvaDecrypterContext* context, guint8* data,
                                                    gsize size,
                                                    const GstUvaContentProtectionMeta* meta);
/// The same; the times (seconds) are there for a debugger to see.
gboolean gst_uva_decrypter_context_software_decrypt_debug(GstUvaDecrypterContext* context,
                                                          guint8* data, gsize size,
                                                          const GstUvaContentProtectionMeta* meta,
                                                          double pts, double dts, double duration);

/// The caps of the description, and behind them the same with their names marked as encrypted. Null
/// when the description is not valid.
GstCaps* gst_uva_add_decrypt_suffix_to_caps(const gchar* description);
/// The structure's name without the mark of encryption; an interned text.
const gchar* gst_uva_get_name_without_decrypt_suffix(GstStructure* structure);
/// What stands on the other side of a decrypting element: for caps of its sink pad those without the
/// mark of encryption, for caps of its source pad those with it (in the first structure's name).
/// Takes the caps, returns them or a changed copy.
GstCaps* gst_uva_content_protection_handler_transform_caps(GstCaps* caps,
                                                           GstPadDirection direction);
}

#pragma GCC visibility pop

#endif
