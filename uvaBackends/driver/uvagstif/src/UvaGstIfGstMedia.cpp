#include "UvaGstIfGstMedia.h"

const char* UvaGstIfGstMedia::name(GstMessage* message) {
    const GstStructure* structure = gst_message_get_structure(message);
    return structure ? gst_structure_get_name(structure) : nullptr;
}

int UvaGstIfGstMedia::integer(GstMessage* message, const char* field) {
    const GstStructure* structure = gst_message_get_structure(message);
    int value = 0;
    return structure && gst_structure_get_int(structure, field, &value) ? value : 0;
}

UvaGstIfMedia::Fraction UvaGstIfGstMedia::fraction(GstMessage* message, const char* field) {
    const GstStructure* structure = gst_message_get_structure(message);
    Fraction value;
    const bool found = structure && gst_structure_get_fraction(structure, field, &value.numerator,
                                                               &value.denominator);
    return found ? value : Fraction{};
}

const char* UvaGstIfGstMedia::text(GstMessage* message, const char* field) {
    const GstStructure* structure = gst_message_get_structure(message);
    return structure ? gst_structure_get_string(structure, field) : nullptr;
}

UvaGstIfMedia::States UvaGstIfGstMedia::states(GstElement* pipeline) {
    GstState current = GST_STATE_NULL;
    GstState pending = GST_STATE_VOID_PENDING;
    if (pipeline)
        gst_element_get_state(pipeline, &current, &pending, GST_CLOCK_TIME_NONE);
    return {current, pending};
}

bool UvaGstIfGstMedia::logs(Category category, Level level) {
    GstDebugCategory* const target = of(category);
    return target && static_cast<int>(gst_debug_category_get_threshold(target)) >= level;
}

void UvaGstIfGstMedia::log(Category category, Level level, const char* file, const char* function,
                           int line, const char* text) {
    if (GstDebugCategory* const target = of(category))
        gst_debug_log(target, static_cast<GstDebugLevel>(level), file, function, line, nullptr,
                      "%s", text);
}
