#include "pass_element.h"

#include <gst/base/gstbasetransform.h>

#include <algorithm>
#include <iterator>

namespace noxelements {

namespace {

struct PassElement {
    const char* name;
    const char* typeName;
    const char* longName;
    const char* klass;
    const char* description;
};

constexpr PassElement passElements[] = {
    {"noxvptsfilter", "GstNoxVptsFilter", "Video time filter", "Filter/Video",
     "Mends the times of transport-stream video on a set; hands on video here"},
    {"edrvessplitter", "GstEdrVesSplitter", "Dual-layer video splitter", "Codec/Splitter",
     "Splits base and enhancement layer on a set; hands on video here"},
};

GstStaticPadTemplate sinkTemplate =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);
GstStaticPadTemplate srcTemplate =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);

void initClass(gpointer klass, gpointer data) {
    const auto& row = *static_cast<const PassElement*>(data);
    auto* element = GST_ELEMENT_CLASS(klass);
    gst_element_class_add_static_pad_template(element, &sinkTemplate);
    gst_element_class_add_static_pad_template(element, &srcTemplate);
    gst_element_class_set_static_metadata(element, row.longName, row.klass, row.description, "Nox");
}

GType registerType(const PassElement& row) {
    GTypeInfo info{};
    info.class_size = sizeof(GstBaseTransformClass);
    info.instance_size = sizeof(GstBaseTransform);
    info.class_init = initClass;
    info.class_data = &row;
    return g_type_register_static(GST_TYPE_BASE_TRANSFORM, row.typeName, &info, GTypeFlags{});
}

} // namespace

bool registerPassElements(GstPlugin* plugin) {
    return std::all_of(std::begin(passElements), std::end(passElements), [plugin](const auto& row) {
        return gst_element_register(plugin, row.name, GST_RANK_NONE, registerType(row));
    });
}

} // namespace noxelements
