#include "codec/codecutil.h"

#include <cstdint>
#include <cstring>
#include <numeric>

namespace {

constexpr std::uint64_t largest = 2147483647;

/// Digits from `text` on, which is moved behind them; false when there is none, or the value
/// exceeds 64 bits.
bool readDigits(const char*& text, std::uint64_t& value) {
    const char* const first = text;
    value = 0;
    for (; g_ascii_isdigit(*text); ++text) {
        const auto digit = static_cast<std::uint64_t>(g_ascii_digit_value(*text));
        if (value > (UINT64_MAX - digit) / 10)
            return false;
        value = value * 10 + digit;
    }
    return text != first;
}

/// The fraction behind the decimal point joins the integer part, as lowest terms of 31 bits.
bool readFraction(const char* text, std::uint64_t& numerator, std::uint64_t& denominator) {
    for (; g_ascii_isdigit(*text); ++text) {
        if (numerator > UINT64_MAX / 10 - 1 || denominator > UINT64_MAX / 10)
            return false;
        numerator = numerator * 10 + static_cast<std::uint64_t>(g_ascii_digit_value(*text));
        denominator *= 10;
    }
    if (*text != '\0')
        return false;
    const std::uint64_t divisor = std::gcd(numerator, denominator);
    numerator /= divisor;
    denominator /= divisor;
    while (numerator > largest && denominator > 1) {
        numerator /= 2;
        denominator /= 2;
    }
    return numerator <= largest && denominator <= largest;
}

bool readNumber(const char* text, std::uint64_t& numerator, std::uint64_t& denominator) {
    if (!readDigits(text, numerator) || numerator > largest)
        return false;
    if (*text == '/')
        return readDigits(++text, denominator) && *text == '\0' && denominator >= 1 &&
               denominator <= largest;
    if (*text == '.' || *text == ',')
        return readFraction(text + 1, numerator, denominator);
    return *text == '\0';
}

} // namespace

gboolean gst_tools_parse_real(const char* text, int* numerator, int* denominator) {
    std::uint64_t above = 0;
    std::uint64_t below = 1;
    if (text == nullptr || (*text != '\0' && !readNumber(text, above, below)))
        return FALSE;
    *numerator = static_cast<int>(above);
    *denominator = static_cast<int>(below);
    return TRUE;
}

GstBuffer* gst_buffer_new_copy(const void* data, gsize size) {
    if (data == nullptr || size == 0)
        return gst_buffer_new();
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, size, nullptr);
    if (buffer != nullptr)
        gst_buffer_fill(buffer, 0, data, size);
    return buffer;
}

namespace {

bool takes(const GstStaticPadTemplate& padTemplate, GstCaps* caps) {
    if (padTemplate.direction != GST_PAD_SINK)
        return false;
    GstCaps* taken = gst_static_caps_get(const_cast<GstStaticCaps*>(&padTemplate.static_caps));
    const bool fits = !gst_caps_is_any(taken) && gst_caps_can_intersect(taken, caps);
    gst_caps_unref(taken);
    return fits;
}

gboolean isCompatible(GstPluginFeature* feature, gpointer caps) {
    if (!GST_IS_ELEMENT_FACTORY(feature) || gst_plugin_feature_get_rank(feature) == GST_RANK_NONE)
        return FALSE;
    const GList* row = gst_element_factory_get_static_pad_templates(GST_ELEMENT_FACTORY(feature));
    for (; row != nullptr; row = row->next)
        if (takes(*static_cast<const GstStaticPadTemplate*>(row->data), GST_CAPS(caps)))
            return TRUE;
    return FALSE;
}

bool isOfKlass(GstElementFactory* factory, const char* klass) {
    const gchar* text = gst_element_factory_get_metadata(factory, GST_ELEMENT_METADATA_KLASS);
    return text != nullptr && klass != nullptr && strcasestr(text, klass) != nullptr;
}

gint byRank(gconstpointer a, gconstpointer b, gpointer /*unused*/) {
    const auto rank = [](gconstpointer factory) {
        return gst_plugin_feature_get_rank(
            GST_PLUGIN_FEATURE_CAST(const_cast<gpointer>(factory)));
    };
    return rank(a) > rank(b) ? -1 : rank(a) < rank(b);
}

/// Of the queue, those of the klass, best rank first; equal ranks keep their order.
GQueue* selectByKlass(const GQueue* factories, const char* klass) {
    GQueue* chosen = g_queue_new();
    for (const GList* node = factories->head; node != nullptr; node = node->next)
        if (isOfKlass(GST_ELEMENT_FACTORY(node->data), klass))
            g_queue_push_tail(chosen, gst_object_ref(node->data));
    g_queue_sort(chosen, byRank, nullptr);
    return chosen;
}

} // namespace

GQueue* uva_gst_find_compatible_factories(GstCaps* caps) {
    GQueue* found = g_queue_new();
    if (caps == nullptr)
        return found;
    GList* features =
        gst_registry_feature_filter(gst_registry_get(), isCompatible, FALSE, caps);
    for (GList* node = features; node != nullptr; node = node->next)
        g_queue_push_tail(found, node->data);
    g_list_free(features); // its references are the queue's now
    return found;
}

GQueue* uva_gst_find_compatible_sorted_factories_with_klass(GstCaps* caps, const char* klass) {
    GQueue* all = uva_gst_find_compatible_factories(caps);
    GQueue* chosen = selectByKlass(all, klass);
    uva_gst_free_factories(all);
    return chosen;
}

GstElement* uva_gst_create_best_element_by_klass(GQueue* factories, const char* klass) {
    if (factories == nullptr)
        return nullptr;
    GQueue* chosen = selectByKlass(factories, klass);
    GstElement* element = nullptr;
    if (!g_queue_is_empty(chosen))
        element =
            gst_element_factory_create(GST_ELEMENT_FACTORY(g_queue_peek_head(chosen)), nullptr);
    uva_gst_free_factories(chosen);
    return element;
}

void uva_gst_free_factories(GQueue* factories) {
    if (factories != nullptr)
        g_queue_free_full(factories, gst_object_unref);
}
