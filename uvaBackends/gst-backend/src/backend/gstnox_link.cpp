#include "backend/gstnox_link.h"

#include "base/gstnox_debug.h"

namespace {

GstDebugCategory* of(UvaGstIfMedia::Category category) {
    return category == UvaGstIfMedia::Category::Backend ? gst_backend_debug : gst_backendif_debug;
}

bool logs(UvaGstIfMedia::Category category, UvaGstIfMedia::Level level) {
    GstDebugCategory* const target = of(category);
    return target != nullptr && static_cast<int>(gst_debug_category_get_threshold(target)) >= level;
}

void log(const UvaGstIfMedia::Line& line) {
    gst_debug_log(of(line.category), static_cast<GstDebugLevel>(line.level), line.file,
                  line.function, line.line, nullptr, "%s", line.text.c_str());
}

UvaGstIfMedia::States states(GstElement* pipeline) {
    GstState current = GST_STATE_NULL;
    GstState pending = GST_STATE_VOID_PENDING;
    if (pipeline != nullptr)
        gst_element_get_state(pipeline, &current, &pending, GST_CLOCK_TIME_NONE);
    return {current, pending};
}

} // namespace

const UvaGstIfMedia linkMedia{logs, log, states};

UvaGstIfApplicationMessage readApplicationMessage(GstMessage* message) {
    UvaGstIfApplicationMessage read;
    const GstStructure* structure = gst_message_get_structure(message);
    if (structure == nullptr)
        return read;
    const auto fraction = [structure](const char* field, UvaGstIfFraction& value) {
        gst_structure_get_fraction(structure, field, &value.numerator, &value.denominator);
    };
    read.name = gst_structure_get_name(structure);
    read.type = gst_structure_get_string(structure, "type");
    read.codec = gst_structure_get_string(structure, "codec");
    gst_structure_get_int(structure, "width", &read.format.width);
    gst_structure_get_int(structure, "height", &read.format.height);
    gst_structure_get_int(structure, "disp-width", &read.format.displayWidth);
    gst_structure_get_int(structure, "disp-height", &read.format.displayHeight);
    fraction("display-aspect-ratio", read.format.aspectRatio);
    fraction("frame-rate", read.format.frameRate);
    return read;
}
