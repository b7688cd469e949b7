#include "mse/uva_gstcontentprotection.h"

#include "base/gst_ptr.h"
#include "base/gstnox_debug.h"
#include "uva/uva_drm_backend.h"

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

GST_DEBUG_CATEGORY(contentProtectionDebug);

constexpr std::string_view encryptedSuffix = "-uva-cenc";

} // namespace

bool InitializeLogging() {
    if (contentProtectionDebug == nullptr)
        GST_DEBUG_CATEGORY_INIT(contentProtectionDebug, "gstuvacontentprotectionhandler", 0,
                                "GstUvaContentProtectionHandler debug");
    return true;
}

// ---- the meta

/// The meta as others know it, and room for its texts and bytes.
struct StoredMeta {
    GstUvaContentProtectionMeta meta;
    guint8* block; ///< where they lie if they are longer than the room
    guint8 room[96];
};

static gboolean cp_meta_init(GstMeta* meta, gpointer /*params*/, GstBuffer* /*buffer*/) {
    std::memset(reinterpret_cast<char*>(meta) + sizeof(GstMeta), 0,
                offsetof(StoredMeta, room) - sizeof(GstMeta));
    return TRUE;
}

static void cp_meta_free(GstMeta* meta, GstBuffer* /*buffer*/) {
    auto* protection = reinterpret_cast<GstUvaContentProtectionMeta*>(meta);
    g_free(reinterpret_cast<StoredMeta*>(meta)->block);
    g_clear_pointer(&protection->subsamples, g_array_unref);
}

static GArray* copyOf(const GArray* subsamples) {
    if (subsamples == nullptr)
        return nullptr;
    GArray* copy = g_array_sized_new(FALSE, FALSE, sizeof(GstUvaSubsample), subsamples->len);
    return g_array_append_vals(copy, subsamples->data, subsamples->len);
}

static gboolean cp_meta_transform(GstBuffer* destination, GstMeta* meta, GstBuffer* /*source*/,
                                  GQuark type, gpointer data) {
    if (!GST_META_TRANSFORM_IS_COPY(type)) {
        GST_CAT_WARNING(contentProtectionDebug,
                        "Unsupported GstUvaContentProtectionMeta transform: %s",
                        g_quark_to_string(type));
        return FALSE;
    }
    if (static_cast<GstMetaTransformCopy*>(data)->region) {
        GST_CAT_WARNING(contentProtectionDebug,
                        "Partial GstUvaContentProtectionMeta copies are not supported!");
        return FALSE;
    }
    // A parser merges samples, each with a meta of its own: no meta describes the whole.
    if (gst_buffer_get_content_protection_meta(destination) != nullptr) {
        GST_CAT_DEBUG(contentProtectionDebug,
                      "Merged buffers: the first GstUvaContentProtectionMeta stays");
        return TRUE;
    }
    const auto* from = reinterpret_cast<GstUvaContentProtectionMeta*>(meta);
    gst_buffer_add_content_protection_meta(destination, from->key_system, from->key_id,
                                           from->key_id_size, from->iv, from->iv_size,
                                           copyOf(from->subsamples), from->flag, from->drm_backend);
    return TRUE;
}

static GType gst_cp_meta_api_get_type() {
    static const GType type = [] {
        static const gchar* tags[] = {"uva_content_protection", nullptr};
        return gst_meta_api_type_register("GstUvaContentProtectionMetaAPI", tags);
    }();
    return type;
}

static const GstMetaInfo* gst_cp_meta_get_info() {
    static const GstMetaInfo* const info =
        gst_meta_register(gst_cp_meta_api_get_type(), "GstUvaContentProtectionMeta",
                          sizeof(StoredMeta), cp_meta_init, cp_meta_free, cp_meta_transform);
    return info;
}

/// Behind what is there already. Null of nothing.
static guint8* copyTo(guint8*& end, const void* bytes, gsize size) {
    if (size == 0)
        return nullptr;
    guint8* const copy = std::exchange(end, end + size);
    std::memcpy(copy, bytes, size);
    return copy;
}

GstUvaContentProtectionMeta* gst_buffer_add_content_protection_meta(
    GstBuffer* buffer, const gchar* keySystem, const guint8* keyId, size_t keyIdSize,
    const guint8* iv, size_t ivSize, GArray* subsamples, gboolean flag, UVADRMBackend* drmBackend) {
    g_return_val_if_fail(GST_IS_BUFFER(buffer) && gst_buffer_is_writable(buffer), nullptr);
    g_assert(gst_buffer_get_meta(buffer, gst_cp_meta_api_get_type()) == nullptr);
    auto* meta = reinterpret_cast<GstUvaContentProtectionMeta*>(
        gst_buffer_add_meta(buffer, gst_cp_meta_get_info(), nullptr));
    const gsize textSize = keySystem != nullptr ? std::strlen(keySystem) + 1 : 0;
    meta->key_id_size = keyId != nullptr ? keyIdSize : 0;
    meta->iv_size = iv != nullptr ? ivSize : 0;
    auto& stored = *reinterpret_cast<StoredMeta*>(meta);
    const gsize size = textSize + meta->key_id_size + meta->iv_size;
    if (size > sizeof stored.room)
        stored.block = static_cast<guint8*>(g_malloc(size));
    guint8* end = stored.block != nullptr ? stored.block : stored.room;
    meta->key_system = reinterpret_cast<gchar*>(copyTo(end, keySystem, textSize));
    meta->key_id = copyTo(end, keyId, meta->key_id_size);
    meta->iv = copyTo(end, iv, meta->iv_size);
    meta->subsamples = subsamples;
    meta->flag = flag;
    meta->drm_backend = drmBackend;
    meta->valid = 1;
    return meta;
}

GstUvaContentProtectionMeta* gst_buffer_get_content_protection_meta(GstBuffer* buffer) {
    return reinterpret_cast<GstUvaContentProtectionMeta*>(
        gst_buffer_get_meta(buffer, gst_cp_meta_api_get_type()));
}

void gst_buffer_remove_content_protection_meta(GstBuffer* buffer) {
    if (auto* meta = gst_buffer_get_content_protection_meta(buffer))
        gst_buffer_remove_meta(buffer, &meta->meta);
}

// ---- the decrypter

/// The host's answer; what it throws counts as `failure`.
template <typename Answer, typename Call>
static Answer askHost(const char* what, Answer failure, Call call) noexcept {
    return guarded(contentProtectionDebug, what, failure, call);
}

struct GstUvaDecrypterContext {
    UVADRMBackend* drm_backend = nullptr; // the one that the decrypter came from
    UVADRMDecrypter* decrypter = nullptr;
    std::vector<guint8> key_id; // what the decrypter was made for
    UVADRMKeySlotGetter* key_slot_getter = nullptr;
    UVADRMFullSampleDecrypter* full_sample_decrypter = nullptr;
};

GstUvaDecrypterContext* gst_uva_decrypter_context_new() {
    return new GstUvaDecrypterContext;
}

void gst_uva_decrypter_context_free(GstUvaDecrypterContext* context) {
    if (context == nullptr)
        return;
    gst_uva_decrypter_context_reset(context);
    delete context;
}

static void releaseDecrypter(GstUvaDecrypterContext* context) {
    if (context->decrypter == nullptr)
        return;
    GST_CAT_DEBUG(contentProtectionDebug, "Releasing decrypter: %p",
                  static_cast<void*>(context->decrypter));
    g_assert(context->drm_backend);
    askHost("releaseDecrypter", false, [context] {
        context->drm_backend->releaseDecrypter(context->decrypter);
        return true;
    });
    context->decrypter = nullptr;
    context->key_id.clear();
}

void gst_uva_decrypter_context_reset(GstUvaDecrypterContext* context) {
    g_return_if_fail(context != nullptr);
    releaseDecrypter(context);
    context->drm_backend = nullptr;
}

static std::string hexText(const guint8* bytes, gsize size) {
    std::string text;
    for (gsize i = 0; bytes != nullptr && i < size; ++i) {
        text += "0123456789abcdef"[bytes[i] >> 4];
        text += "0123456789abcdef"[bytes[i] & 15];
    }
    return text;
}

template <typename Interface>
static Interface* interfaceOf(UVADRMBackend& backend) {
    return static_cast<Interface*>(askHost("getInterface", static_cast<void*>(nullptr), [&backend] {
        return backend.getInterface(Interface::interfaceName);
    }));
}

gboolean gst_uva_decrypter_context_update(GstUvaDecrypterContext* context,
                                          const GstUvaContentProtectionMeta* meta, guint64 value) {
    g_return_val_if_fail(context != nullptr && meta != nullptr, FALSE);
    const guint8* keyId = meta->key_id;
    const gsize size = meta->key_id_size;
    if (context->decrypter != nullptr && context->key_id.size() == size &&
        std::memcmp(context->key_id.data(), keyId, size) == 0)
        return TRUE;
    const auto* ctx = context;
    const auto* cpmeta = meta;
    g_assert(ctx->drm_backend == nullptr || ctx->drm_backend == cpmeta->drm_backend);
    releaseDecrypter(context);
    UVADRMBackend* backend = meta->drm_backend;
    const auto create = [&] {
        return backend->createDecrypter(context->decrypter, keyId, size, value);
    };
    if (backend == nullptr || keyId == nullptr || askHost("createDecrypter", 0, create) != 1 ||
        context->decrypter == nullptr) {
        GST_CAT_WARNING(contentProtectionDebug, "no decrypter for key id %s",
                        hexText(keyId, size).c_str());
        context->decrypter = nullptr;
        return FALSE;
    }
    context->drm_backend = backend;
    context->key_id.assign(keyId, keyId + size);
    context->key_slot_getter = interfaceOf<UVADRMKeySlotGetter>(*backend);
    context->full_sample_decrypter = interfaceOf<UVADRMFullSampleDecrypter>(*backend);
    return TRUE;
}

static gboolean failed() {
    GST_CAT_ERROR(contentProtectionDebug, "Failed to decrypt content!");
    return FALSE;
}

/// Of a call that answers 0 on success.
template <typename Call>
static gboolean decryptWith(Call call) {
    return askHost("decrypt", -1, call) == 0 ? TRUE : failed();
}

gboolean gst_uva_decrypter_context_decrypt(GstUvaDecrypterContext* context, const guint8* iv,
                                           gsize ivSize, const guint8* in, gsize inSize,
                                           guint8* out, gsize outSize, guint flags) {
    if (context == nullptr || context->decrypter == nullptr) {
        GST_CAT_ERROR(contentProtectionDebug, "Invalid decrypter context!");
        return FALSE;
    }
    UVADRMDecrypter::Input input;
    input.iv = iv;
    input.ivSize = ivSize;
    input.data = in;
    input.size = inSize;
    input.first = (flags & GST_UVA_DECRYPT_FIRST) != 0;
    input.last = (flags & GST_UVA_DECRYPT_LAST) != 0;
    input.flag = (flags & GST_UVA_DECRYPT_EXTRA) != 0;
    UVADRMDecrypter::Output output;
    output.data = out;
    output.size = outSize;
    return decryptWith([&] { return context->decrypter->decrypt(input, output); });
}

gboolean gst_uva_decrypter_context_get_key_slot(GstUvaDecrypterContext* context, guint32* slot) {
    g_return_val_if_fail(context != nullptr && slot != nullptr, FALSE);
    if (context->key_slot_getter == nullptr || context->decrypter == nullptr) {
        GST_CAT_ERROR(contentProtectionDebug, "Failed to obtain %s interface.",
                      UVADRMKeySlotGetter::interfaceName);
        return FALSE;
    }
    std::uint32_t found = 0;
    const auto get = [&] {
        return context->key_slot_getter->getKeySlot(context->decrypter, found);
    };
    if (askHost("getKeySlot", 0, get) != 1) {
        GST_CAT_ERROR(contentProtectionDebug, "Failed to obtain key slot value");
        return FALSE;
    }
    *slot = found;
    return TRUE;
}

static bool isInside(const GstUvaSubsample& range, gsize size) {
    return range.offset <= size && range.length <= size - range.offset;
}

static gboolean decryptRanges(GstUvaDecrypterContext* context, guint8* data,
                              const GstUvaSubsample* ranges, guint count,
                              const GstUvaContentProtectionMeta& meta) {
    const guint8* iv = meta.iv;
    for (guint i = 0; i < count; ++i) {
        if (ranges[i].length == 0)
            continue;
        guint8* range = data + ranges[i].offset;
        const guint flags =
            (i == 0 ? GST_UVA_DECRYPT_FIRST : 0U) | (i + 1 == count ? GST_UVA_DECRYPT_LAST : 0U);
        if (!gst_uva_decrypter_context_decrypt(context, iv, iv != nullptr ? meta.iv_size : 0, range,
                                               ranges[i].length, range, ranges[i].length, flags))
            return FALSE;
        iv = nullptr; // the next range goes on where this one ended
    }
    return TRUE;
}

static gboolean gst_uva_decrypter_context_decrypt_entire_sample(
    GstUvaDecrypterContext* context, guint8* data, gsize size, const GstUvaSubsample* ranges,
    guint count, const GstUvaContentProtectionMeta& meta) {
    if (context->decrypter == nullptr) {
        GST_CAT_ERROR(contentProtectionDebug, "Invalid decrypter context!");
        return FALSE;
    }
    UVADRMFullSampleDecrypter::Sample sample;
    sample.data = data;
    sample.size = size;
    sample.iv = meta.iv;
    sample.ivSize = meta.iv_size;
    sample.subsamples.reserve(count);
    for (guint i = 0; i < count; ++i)
        sample.subsamples.push_back({ranges[i].offset, ranges[i].length});
    return decryptWith(
        [&] { return context->full_sample_decrypter->decrypt(context->decrypter, sample); });
}

gboolean gst_uva_decrypter_context_software_decrypt(GstUvaDecrypterContext* context, guint8* data,
                                                    gsize size,
                                                    const GstUvaContentProtectionMeta* meta) {
    g_return_val_if_fail(context != nullptr && meta != nullptr, FALSE);
    const GArray* array = meta->subsamples;
    const guint count = array != nullptr ? array->len : 0;
    const auto* ranges =
        array != nullptr ? reinterpret_cast<const GstUvaSubsample*>(array->data) : nullptr;
    for (guint i = 0; i < count; ++i)
        if (!isInside(ranges[i], size))
            return failed();
    if (context->full_sample_decrypter == nullptr)
        return decryptRanges(context, data, ranges, count, *meta);
    return gst_uva_decrypter_context_decrypt_entire_sample(context, data, size, ranges, count,
                                                           *meta);
}

gboolean gst_uva_decrypter_context_software_decrypt_debug(GstUvaDecrypterContext* context,
                                                          guint8* data, gsize size,
                                                          const GstUvaContentProtectionMeta* meta,
                                                          double /*pts*/, double /*dts*/,
                                                          double /*duration*/) {
    return gst_uva_decrypter_context_software_decrypt(context, data, size, meta);
}

// ---- caps

static bool isMarked(std::string_view name) {
    return name.size() >= encryptedSuffix.size() &&
           name.substr(name.size() - encryptedSuffix.size()) == encryptedSuffix;
}

static void mark(GstStructure* structure) {
    const std::string name = gst_structure_get_name(structure) + std::string(encryptedSuffix);
    gst_structure_set_name(structure, name.c_str());
}

GstCaps* gst_uva_add_decrypt_suffix_to_caps(const gchar* description) {
    GstCaps* caps = description != nullptr ? gst_caps_from_string(description) : nullptr;
    if (caps == nullptr)
        return nullptr;
    GstCaps* encrypted = gst_caps_copy(caps);
    for (guint i = 0; i < gst_caps_get_size(encrypted); ++i)
        mark(gst_caps_get_structure(encrypted, i));
    gst_caps_append(caps, encrypted);
    return caps;
}

const gchar* gst_uva_get_name_without_decrypt_suffix(GstStructure* structure) {
    g_return_val_if_fail(structure != nullptr, nullptr);
    const std::string_view name = gst_structure_get_name(structure);
    if (!isMarked(name))
        return g_intern_string(name.data());
    return g_intern_string(
        std::string(name.substr(0, name.size() - encryptedSuffix.size())).c_str());
}

GstCaps* gst_uva_content_protection_handler_transform_caps(GstCaps* caps,
                                                           GstPadDirection direction) {
    if (caps == nullptr || gst_caps_get_size(caps) == 0)
        return caps;
    const bool wanted = direction == GST_PAD_SRC; // the encrypted form
    if (isMarked(gst_structure_get_name(gst_caps_get_structure(caps, 0))) == wanted)
        return caps;
    caps = gst_caps_make_writable(caps);
    GstStructure* structure = gst_caps_get_structure(caps, 0);
    if (wanted)
        mark(structure);
    else
        gst_structure_set_name(structure, gst_uva_get_name_without_decrypt_suffix(structure));
    return caps;
}
