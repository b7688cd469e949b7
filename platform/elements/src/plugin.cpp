#include "hal_audio_sink.h"
#include "hal_video_sink.h"
#include "pass_element.h"

#include <gst/pbutils/pbutils.h>

static gboolean initPlugin(GstPlugin* plugin) {
    // Above every other sink and decoder, so that a player hands its encoded streams here.
    constexpr guint rank = GST_RANK_PRIMARY + 100;
    gst_pb_utils_init();
    return gst_element_register(plugin, "halvideosink", rank, gst_hal_video_sink_get_type()) &&
           gst_element_register(plugin, "halaudiosink", rank, gst_hal_audio_sink_get_type()) &&
           noxelements::registerPassElements(plugin);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, noxelements,
                  "The elements of a simulated television set", initPlugin, PACKAGE_VERSION, "LGPL",
                  PACKAGE, "https://gstreamer.freedesktop.org/")
