#ifndef CODECHEADERS_H
#define CODECHEADERS_H

#include <gst/gst.h>

#include <array>

/// The fields of an "OpusHead" identification header (RFC 7845, 5.1), but with its numbers most
/// significant byte first.
struct OpusHeader {
    guint8 channels = 0;
    guint16 preSkip = 0;    ///< samples at 48 kHz
    guint32 sampleRate = 0; ///< Hz, of the original; 0: not said
    gint16 outputGain = 0;  ///< dB, Q7.8
    guint8 mappingFamily = 0;
    guint8 streamCount = 0;
    guint8 coupledCount = 0;
    std::array<guint8, 255> mapping{}; ///< `channels` entries; 255: silence
};

/// FALSE, and nothing stored, when the bytes are no valid header. Thread-safe.
gboolean opus_header_parse(const guint8* data, gsize size, OpusHeader* header);

/// "audio/x-opus" caps for codec data that is such a header; null when it is invalid.
GstCaps* gst_opus_create_caps_from_header(const guint8* data, gsize size);

/// Gives the caps a "streamheader" from codec data that holds the three Vorbis headers back to back
/// (Vorbis I, 4.2). FALSE, caps unchanged and an ERROR logged when there are fewer. Thread-safe.
gboolean gst_vorbis_set_extra_data(GstCaps* caps, const guint8* data, gsize size);

/// Whether a stream can begin with this VP9 frame or superframe: a key frame (VP9 bitstream, 6.2) and,
/// where it ends like a superframe, an index in front of that end (annex B). Thread-safe.
bool vp9_begins_stream(const guint8* data, gsize size);

#endif
