#ifndef GSTNOX_SYSLOG_H
#define GSTNOX_SYSLOG_H

#include <gst/gst.h>

/// Sends one GStreamer debug message to syslog: a GstLogFunction without user data. It applies no
/// threshold of its own. Takes no lock of an object, since its caller may hold it. Thread-safe.
void gstLogToSyslog(GstDebugCategory* category, GstDebugLevel level, const gchar* file,
                    const gchar* function, gint line, GObject* object, GstDebugMessage* message,
                    gpointer unused);

#endif
