#include "factories.h"

#include <string_view>

namespace noxelements {

namespace {

/// Installed factories of a type, best rank first.
class Factories {
public:
    explicit Factories(GstElementFactoryListType type)
        : m_list(gst_element_factory_list_get_elements(type, GST_RANK_MARGINAL)) {
        m_list = g_list_sort(m_list, gst_plugin_feature_rank_compare_func);
    }
    ~Factories() { gst_plugin_feature_list_free(m_list); }
    Factories(const Factories&) = delete;
    Factories& operator=(const Factories&) = delete;

    template <typename Make>
    GstPtr<GstElement> first(Make make) const {
        for (const GList* node = m_list; node; node = node->next)
            if (auto element = make(GST_ELEMENT_FACTORY(node->data)))
                return element;
        return nullptr;
    }

private:
    GList* m_list;
};

bool isOurs(GstElementFactory* factory) {
    const char* plugin = gst_plugin_feature_get_plugin_name(GST_PLUGIN_FEATURE(factory));
    return plugin && std::string_view(plugin) == PACKAGE;
}

GstPtr<GstElement> make(GstElementFactory* factory) {
    return sinkRef(gst_element_factory_create(factory, nullptr));
}

} // namespace

GstPtr<GstElement> makeDecoder(const GstCaps* caps) {
    return Factories(GST_ELEMENT_FACTORY_TYPE_DECODER).first([caps](GstElementFactory* factory) {
        return gst_element_factory_can_sink_any_caps(factory, caps) ? make(factory) : nullptr;
    });
}

GstPtr<GstElement> openDevice(GstElementFactoryListType medium) {
    const Factories sinks(GST_ELEMENT_FACTORY_TYPE_SINK | medium);
    return sinks.first([](GstElementFactory* factory) -> GstPtr<GstElement> {
        if (isOurs(factory))
            return nullptr;
        auto device = make(factory);
        if (!device)
            return nullptr;
        if (gst_element_set_state(device.get(), GST_STATE_READY) == GST_STATE_CHANGE_SUCCESS)
            return device;
        gst_element_set_state(device.get(), GST_STATE_NULL);
        return nullptr;
    });
}

} // namespace noxelements
