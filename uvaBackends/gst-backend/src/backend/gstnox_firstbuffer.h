#ifndef GSTNOX_FIRSTBUFFER_H
#define GSTNOX_FIRSTBUFFER_H

#include <gst/gst.h>

/// Keeps a demuxer that pulls its input from losing its stream before it is linked.
///
/// decodebin lets the task of such an element go and looks at its source pad after that (GStreamer
/// 1.22). Where that pad's caps need no look, as aiffparse's, a quick task pushes into nothing, is
/// told "not-linked" and stops; decodebin drops the error, and nothing plays for ever. The first
/// buffer therefore waits until decodebin is through.
///
/// Once, for a demuxer that has just been put into its bin. Elements without a lasting source pad
/// are left alone.
void holdFirstBufferUntilLinked(GstElement* demuxer);

#endif
