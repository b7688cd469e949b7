#ifndef CODECUTIL_H
#define CODECUTIL_H

#include <gst/gst.h>

/// Reads an unsigned decimal number: "25", "30000/1001", "29.97" or "29,97". An empty text is 0/1.
/// FALSE, and nothing stored, when the text is null, is anything else, or does not fit into 31
/// bits. Thread-safe.
gboolean gst_tools_parse_real(const char* text, int* numerator, int* denominator);

/// A new buffer with a copy of the bytes; empty when `data` is null. Thread-safe.
GstBuffer* gst_buffer_new_copy(const void* data, gsize size);

/// The installed element factories that may take these caps: those of a rank above none with a sink
/// pad template that is not ANY and can intersect them. The caller owns the queue and a reference
/// to each. Searches the whole registry. Thread-safe.
GQueue* uva_gst_find_compatible_factories(GstCaps* caps);

/// Of those, the ones with the word in their klass (in any case), best rank first.
GQueue* uva_gst_find_compatible_sorted_factories_with_klass(GstCaps* caps, const char* klass);

/// A new element of the best-ranked factory in the queue with the word in its klass, null when there
/// is none or it makes none. The reference is floating. The queue stays the caller's.
GstElement* uva_gst_create_best_element_by_klass(GQueue* factories, const char* klass);

/// Frees such a queue and its references; null is fine.
void uva_gst_free_factories(GQueue* factories);

#endif
