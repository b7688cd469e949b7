#ifndef NOXELEMENTS_GST_PTR_H
#define NOXELEMENTS_GST_PTR_H

#include <gst/gst.h>

#include <memory>

namespace noxelements {

struct Unref {
    void operator()(GstElement* element) const { gst_object_unref(element); }
    void operator()(GstPad* pad) const { gst_object_unref(pad); }
    void operator()(GstObject* object) const { gst_object_unref(object); }
    void operator()(GstElementFactory* factory) const { gst_object_unref(factory); }
    void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
    void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
    void operator()(GstEvent* event) const { gst_event_unref(event); }
    void operator()(GstSample* sample) const { gst_sample_unref(sample); }
    void operator()(GstStructure* structure) const { gst_structure_free(structure); }
    void operator()(GstIterator* iterator) const { gst_iterator_free(iterator); }
    void operator()(char* text) const { g_free(text); }
};

/// A reference that is given back at the end of the scope.
template <typename T>
using GstPtr = std::unique_ptr<T, Unref>;

/// Takes over a floating reference, or shares a full one.
inline GstPtr<GstElement> sinkRef(GstElement* element) {
    return GstPtr<GstElement>(element ? GST_ELEMENT(gst_object_ref_sink(element)) : nullptr);
}

inline GstPtr<GstPad> shared(GstPad* pad) {
    return GstPtr<GstPad>(GST_PAD(gst_object_ref(pad)));
}

} // namespace noxelements

#endif
