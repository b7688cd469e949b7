#include "backend/gstnox_decoder.h"

#include "UvaGstIfReceiver.h"
#include "base/gst_ptr.h"
#include "base/gstnox_debug.h"

#include <string_view>

#define GST_CAT_DEFAULT gst_backend_debug

namespace {

enum DecoderKind : int { AudioKind = 1, VideoKind = 2 };

std::size_t indexOf(std::string_view type) {
    return type == "video" ? 1 : 0;
}

/// The client has had its say: another sink may ask now, without being turned away. A set's sinks
/// may not care.
void tellForwarded(GstElement* sink) {
    constexpr const char* action = "decoder-request-forwarded";
    if (sink != nullptr && g_signal_lookup(action, G_OBJECT_TYPE(sink)) != 0)
        g_signal_emit_by_name(sink, action);
}

/// It stays so until the thread that asks has left the sink: the end of a flush waits for it. A pad
/// that is not active counts as flushing elsewhere; a set's sink may ask before its pads are.
bool isFlushing(GstElement* sink) {
    const auto pad = sink != nullptr
                         ? GstPtr<GstPad>::adopt(gst_element_get_static_pad(sink, "sink"))
                         : GstPtr<GstPad>();
    if (!pad)
        return false;
    GST_OBJECT_LOCK(pad.get());
    const bool flushing = GST_PAD_IS_ACTIVE(pad.get()) && GST_PAD_IS_FLUSHING(pad.get());
    GST_OBJECT_UNLOCK(pad.get());
    return flushing;
}

} // namespace

void DecoderHandshake::watch(GstElement* sink) {
    if (const auto pad = GstPtr<GstPad>::adopt(gst_element_get_static_pad(sink, "sink")))
        gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_EVENT_FLUSH, onFlush, this, nullptr);
}

/// The pad is flushing already.
GstPadProbeReturn DecoderHandshake::onFlush(GstPad*, GstPadProbeInfo* info, gpointer handshake) {
    if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_FLUSH_START)
        static_cast<DecoderHandshake*>(handshake)->wake();
    return GST_PAD_PROBE_OK;
}

bool DecoderHandshake::isStopped(const gchar* type) const {
    return m_stops[indexOf(type)] > 0;
}

bool DecoderHandshake::isInterrupted(GstElement* sink, const gchar* type) const {
    return isStopped(type) || isFlushing(sink);
}

void DecoderHandshake::wake() {
    {
        const GLibLock lock(m_lock);
        m_changed.broadcast();
    }
    uvaGstIfReceiver.wake();
}

DecoderHandshake::Answer DecoderHandshake::askClientAndMainSystem(GstElement* sink,
                                                                  const gchar* type) {
    const Answer answer = askClient(sink, type);
    return answer == Answer::Granted ? askMainSystem(sink, type) : answer;
}

DecoderHandshake::Answer DecoderHandshake::askClient(GstElement* sink, const gchar* type) {
    std::shared_ptr<Question> question;
    bool isNew = false;
    {
        const GLibLock lock(m_lock);
        GST_DEBUG("m_resources_state=%d, type=%s", m_resources_state, type);
        if (isInterrupted(sink, type))
            return Answer::Interrupted;
        if (m_resources_state == ResourcesGranted)
            return Answer::Granted;
        isNew = m_question == nullptr || m_question->isWaitedFor;
        if (isNew && m_resources_state == ResourcesAsked)
            return Answer::Refused;
        if (isNew) {
            GST_INFO("about asks for resources (%d)", m_resources_needed);
            m_resources_state = ResourcesAsked;
            m_question = std::make_shared<Question>();
        }
        m_question->isWaitedFor = true;
        question = m_question;
    }
    if (isNew)
        m_askClient();
    const GLibLock lock(m_lock);
    return waitForClient(question, sink, type);
}

DecoderHandshake::Answer DecoderHandshake::waitForClient(const std::shared_ptr<Question>& question,
                                                         GstElement* sink, const gchar* type) {
    while (!question->answer && !isInterrupted(sink, type))
        m_changed.wait(m_lock);
    if (!question->answer && !isStopped(type)) {
        question->isWaitedFor = false; // for whoever asks after the flush
        return Answer::Interrupted;
    }
    const bool isNewest = m_question == question;
    if (isNewest)
        m_question.reset();
    if (question->answer)
        return *question->answer ? Answer::Granted : Answer::Refused;
    if (isNewest)
        m_resources_state = NoResources;
    return Answer::Interrupted;
}

DecoderHandshake::Answer DecoderHandshake::askMainSystem(GstElement* sink, const gchar* type) {
    tellForwarded(sink);
    const auto interrupted = [&] { return isInterrupted(sink, type); };
    if (uvaGstIfReceiver.requestDecoder(type, &m_requester, interrupted))
        return Answer::Granted;
    return interrupted() ? Answer::Interrupted : Answer::Refused;
}

void DecoderHandshake::completeRequest(bool success) {
    const GLibLock lock(m_lock);
    m_resources_state = success ? ResourcesGranted : NoResources;
    if (m_question != nullptr)
        m_question->answer = success;
    m_changed.broadcast();
}

int DecoderHandshake::resourcesState() {
    const GLibLock lock(m_lock);
    return m_resources_state;
}

int DecoderHandshake::noteNeed(const gchar* type) {
    struct Row {
        std::string_view type;
        int clear;
        int set;
    };
    static constexpr std::array rows{Row{"-audio", AudioKind, 0}, Row{"-video", VideoKind, 0},
                                     Row{"+audio", 0, AudioKind}, Row{"+video", 0, VideoKind}};
    const GLibLock lock(m_lock);
    for (const auto& row : rows)
        if (row.type == type)
            m_resources_needed = (m_resources_needed & ~row.clear) | row.set;
    return m_resources_needed;
}

DecoderHandshake::Stop::Stop(DecoderHandshake& handshake, const char* type)
    : m_handshake(handshake), m_type(type) {
    count(1);
    m_handshake.wake();
    uvaGstIfReceiver.breakWaits(m_handshake.m_requester, m_type);
}

DecoderHandshake::Stop::~Stop() {
    uvaGstIfReceiver.allowWaits(m_handshake.m_requester, m_type);
    count(-1);
}

void DecoderHandshake::Stop::count(int change) {
    for (const char* type : {"audio", "video"})
        if (m_type == nullptr || std::string_view(m_type) == type)
            m_handshake.m_stops[indexOf(type)] += change;
}
