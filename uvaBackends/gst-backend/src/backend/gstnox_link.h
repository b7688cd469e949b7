#ifndef GSTNOX_LINK_H
#define GSTNOX_LINK_H

#include "UvaGstIfMedia.h"
#include "UvaGstIfReports.h"

#include <gst/gst.h>

/// GStreamer, for the link to the main system: it logs to the backend's categories, as soon as
/// there are any.
extern const UvaGstIfMedia linkMedia;

UvaGstIfApplicationMessage readApplicationMessage(GstMessage* message);

#endif
