#include "backend/gstnox_streamgroup.h"

#include "base/glib_lock.h"
#include "base/gst_ptr.h"
#include "base/gstnox_debug.h"

#include <algorithm>
#include <map>
#include <memory>
#include <optional>

#define GST_CAT_DEFAULT gst_backend_debug

namespace {

/// What the sink pads of a synchronizer have seen go by. Any thread.
class StreamGroups {
public:
    void begins(GstPad* pad, guint group) {
        const GLibLock lock(m_lock);
        auto& stream = m_streams[pad];
        if (stream.group != group)
            stream = {group, false};
    }
    void isFlushed(GstPad* pad) {
        const GLibLock lock(m_lock);
        m_streams[pad].isFlushed = true;
    }
    void ends(GstPad* pad) {
        const GLibLock lock(m_lock);
        m_streams.erase(pad);
    }
    /// Whether another of its group has begun and been flushed since, and this one has not: asked
    /// when its segment comes, and true once.
    bool waitsForTheForgotten(GstPad* pad) {
        const GLibLock lock(m_lock);
        auto& mine = m_streams[pad];
        if (!mine.group || mine.isFlushed)
            return false;
        mine.isFlushed = std::any_of(m_streams.begin(), m_streams.end(), [&](const auto& other) {
            return other.second.group == mine.group && other.second.isFlushed;
        });
        return mine.isFlushed;
    }

private:
    struct Stream {
        std::optional<guint> group;
        bool isFlushed = false; // since it has begun
    };
    GLibMutex m_lock; // a leaf
    std::map<GstPad*, Stream> m_streams GUARDED_BY(m_lock);
};

using Shared = std::shared_ptr<StreamGroups>;

Shared& groupsOf(gpointer data) {
    return *static_cast<Shared*>(data);
}

void dropShared(gpointer data) {
    delete static_cast<Shared*>(data);
}

void dropSharedOfClosure(gpointer data, GClosure* /*closure*/) {
    dropShared(data);
}

/// A change of tracks ends the wait of one stream with this event; nobody else minds it.
void letThrough(GstPad* pad) {
    GST_INFO_OBJECT(pad, "begins after a seek has flushed the others: not held");
    gst_pad_send_event(
        pad, gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM_OOB,
                                  gst_structure_new_empty("playsink-custom-audio-flush")));
}

GstPadProbeReturn eventPasses(GstPad* pad, GstPadProbeInfo* info, gpointer data) {
    auto& groups = *groupsOf(data);
    GstEvent* const event = GST_PAD_PROBE_INFO_EVENT(info);
    switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_STREAM_START:
        if (guint group = 0; gst_event_parse_group_id(event, &group))
            groups.begins(pad, group);
        break;
    case GST_EVENT_FLUSH_STOP:
        groups.isFlushed(pad);
        break;
    case GST_EVENT_SEGMENT:
        if (groups.waitsForTheForgotten(pad))
            letThrough(pad);
        break;
    default:
        break;
    }
    return GST_PAD_PROBE_OK;
}

void padAdded(GstElement* /*synchronizer*/, GstPad* pad, gpointer data) {
    if (GST_PAD_IS_SINK(pad))
        gst_pad_add_probe(pad,
                          static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM |
                                                       GST_PAD_PROBE_TYPE_EVENT_FLUSH),
                          eventPasses, new Shared(groupsOf(data)), dropShared);
}

void padRemoved(GstElement* /*synchronizer*/, GstPad* pad, gpointer data) {
    groupsOf(data)->ends(pad);
}

/// It has no pad yet.
void keepStreamsGoing(GstElement* synchronizer) {
    const auto groups = std::make_shared<StreamGroups>();
    const auto connect = [&](const char* signal, GCallback callback) {
        g_signal_connect_data(synchronizer, signal, callback, new Shared(groups),
                              dropSharedOfClosure, static_cast<GConnectFlags>(0));
    };
    connect("pad-added", G_CALLBACK(padAdded));
    connect("pad-removed", G_CALLBACK(padRemoved));
}

} // namespace

void keepStreamGroupsGoing(GstElement* playbin) {
    GstIterator* const found =
        gst_bin_iterate_all_by_element_factory_name(GST_BIN(playbin), "streamsynchronizer");
    GValue item = G_VALUE_INIT;
    while (gst_iterator_next(found, &item) == GST_ITERATOR_OK) {
        keepStreamsGoing(static_cast<GstElement*>(g_value_get_object(&item)));
        g_value_unset(&item);
    }
    gst_iterator_free(found);
}
