#include "device_output.h"

#include "factories.h"

#include <cstdlib>

#include <unistd.h>

namespace noxelements {

namespace {

bool isSet(const char* variable) {
    const char* value = std::getenv(variable);
    return value && *value;
}

} // namespace

bool hasDisplay() {
    return isSet("DISPLAY") || isSet("WAYLAND_DISPLAY");
}

bool hasSoundDevice() {
    return isSet("PULSE_SERVER") || access("/dev/snd", F_OK) == 0;
}

GstPtr<GstElement> makeDeviceChain(const char* converters, GstElementFactoryListType medium) {
    auto device = openDevice(medium);
    if (!device)
        return nullptr;
    auto head = sinkRef(gst_parse_bin_from_description(converters, TRUE, nullptr));
    if (!head) {
        gst_element_set_state(device.get(), GST_STATE_NULL);
        return nullptr;
    }
    auto chain = sinkRef(gst_bin_new("device"));
    gst_bin_add_many(GST_BIN(chain.get()), head.get(), device.get(), nullptr);
    gst_element_link(head.get(), device.get());
    const GstPtr<GstPad> pad(gst_element_get_static_pad(head.get(), "sink"));
    gst_element_add_pad(chain.get(), gst_ghost_pad_new("sink", pad.get()));
    return chain;
}

} // namespace noxelements
