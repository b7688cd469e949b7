#ifndef CODECUTIL_H
#define CODECUTIL_H

#include <glib.h>

/// Reads an unsigned decimal number: "25", "30000/1001", "29.97" or "29,97". An empty text is 0/1.
/// FALSE, and nothing stored, when the text is null, is anything else, or does not fit into 31
/// bits. Thread-safe.
gboolean gst_tools_parse_real(const char* text, int* numerator, int* denominator);

#endif
