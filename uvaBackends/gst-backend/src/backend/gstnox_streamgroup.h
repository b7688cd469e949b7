#ifndef GSTNOX_STREAMGROUP_H
#define GSTNOX_STREAMGROUP_H

#include <gst/gst.h>

/// Keeps a playbin from stopping for good when a seek comes while its streams begin.
///
/// Its stream synchronizer holds each stream of a group at its first segment until all have begun.
/// A flush of one that has begun makes it forget that (GStreamer 1.22): a stream that begins later
/// then waits for ever, with no picture or no sound, and no end. Such a stream is let through.
///
/// Once, for a new playbin; it lasts as long as the playbin.
void keepStreamGroupsGoing(GstElement* playbin);

#endif
