#ifndef CODECCAPS_H
#define CODECCAPS_H

#include <gst/gst.h>

class UVAStreamConfig;

/// The caps of samples with this stream configuration, codec data included; the caller owns them.
/// Null for an invalid Opus header and, with an ERROR logged, for a codec that media sources do not
/// take. Sizes, rates and channel counts that are not positive are left out. Thread-safe.
GstCaps* gst_caps_create_from_config(const UVAStreamConfig* config);

#endif
