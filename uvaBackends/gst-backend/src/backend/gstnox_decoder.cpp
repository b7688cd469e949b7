#include "backend/gstnox_decoder.h"

#include "UvaGstIfReceiver.h"
#include "base/gst_ptr.h"
#include "base/gstnox_debug.h"
#include "script/script_events.h"

#include <utility>

#define GST_CAT_DEFAULT gst_backend_debug

namespace {

/// The client has had its say: another sink may ask now, without being turned away. A set's sinks
/// may not care.
void tellForwarded(GstElement* sink) {
    constexpr const char* action = "decoder-request-forwarded";
    if (sink != nullptr && g_signal_lookup(action, G_OBJECT_TYPE(sink)) != 0)
        g_signal_emit_by_name(sink, action);
}

GstPtr<GstPad> padOf(GstElement* sink) {
    return sink != nullptr ? GstPtr<GstPad>::adopt(gst_element_get_static_pad(sink, "sink"))
                           : GstPtr<GstPad>();
}

/// It stays so until the thread that asks has left the sink: the end of a flush waits for it. A pad
/// that is not active counts as flushing elsewhere; a set's sink may ask before its pads are.
bool isFlushing(GstPad* pad) {
    if (pad == nullptr)
        return false;
    GST_OBJECT_LOCK(pad);
    const bool flushing = GST_PAD_IS_ACTIVE(pad) && GST_PAD_IS_FLUSHING(pad);
    GST_OBJECT_UNLOCK(pad);
    return flushing;
}

} // namespace

DecoderHandshake::Wait DecoderHandshake::Request::waitFor(WaitFor whom) const {
    const GCharPtr name(sink != nullptr ? gst_object_get_name(GST_OBJECT(sink)) : nullptr);
    return {whom, name ? name.get() : "", kind ? nameOf(*kind) : "", g_get_monotonic_time()};
}

class DecoderHandshake::Waiting {
public:
    Waiting(DecoderHandshake& handshake, const Request& request, WaitFor whom)
        : m_handshake(handshake),
          m_span("decoder",
                 whom == WaitFor::Client ? "wait for the client" : "wait for the main system") {
        m_span.with("kind", request.kind ? nameOf(*request.kind) : "");
        auto wait = request.waitFor(whom);
        const GLibLock lock(m_handshake.m_lock);
        m_place = m_handshake.m_waits.insert(m_handshake.m_waits.end(), std::move(wait));
    }
    ~Waiting() {
        const GLibLock lock(m_handshake.m_lock);
        m_handshake.m_waits.erase(m_place);
    }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

private:
    DecoderHandshake& m_handshake;
    const timeline::Span m_span;
    std::list<Wait>::iterator m_place;
};

std::vector<DecoderHandshake::Wait> DecoderHandshake::waits() {
    const GLibLock lock(m_lock);
    return {m_waits.begin(), m_waits.end()};
}

std::optional<DecoderHandshake::Wait> DecoderHandshake::refusal() {
    const GLibLock lock(m_lock);
    return m_refusal;
}

DecoderHandshake::Answer DecoderHandshake::note(Answer answer, WaitFor whose,
                                                const Request& request) {
    auto wait = request.waitFor(whose);
    const GLibLock lock(m_lock);
    if (answer == Answer::Refused)
        m_refusal = std::move(wait);
    else if (answer == Answer::Granted && m_refusal && m_refusal->kind == wait.kind)
        m_refusal.reset();
    return answer;
}

DecoderHandshake::Request::Request(GstElement* asking, const gchar* type)
    : sink(asking), pad(padOf(asking)), kind(mediaKindOf(type)) {}

void DecoderHandshake::attach(GstElement* sink, SinkOf what) {
    if (const auto pad = padOf(sink))
        gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_EVENT_FLUSH, onFlush, this, nullptr);
    g_signal_connect(
        sink, "decoder-request",
        G_CALLBACK(what == SinkOf::Url ? decoder_request_cb : source_decoder_request_cb), this);
}

/// The pad is flushing already.
GstPadProbeReturn DecoderHandshake::onFlush(GstPad*, GstPadProbeInfo* info,
                                            gpointer self) noexcept {
    guarded("a flush", [=] {
        if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_FLUSH_START)
            static_cast<DecoderHandshake*>(self)->wake();
    });
    return GST_PAD_PROBE_OK;
}

gint DecoderHandshake::decoder_request_cb(GstElement* sink, const gchar* type,
                                          gpointer self) noexcept {
    return guarded(GST_CAT_DEFAULT, "decoder-request", 0, [=] {
        auto* handshake = static_cast<DecoderHandshake*>(self);
        GST_DEBUG("m_resources_state=%d, type=%s", handshake->resourcesState(), type);
        return handshake->reply(handshake->askBoth({sink, type}), type);
    });
}

gint DecoderHandshake::source_decoder_request_cb(GstElement* sink, const gchar* type,
                                                 gpointer self) noexcept {
    return guarded(GST_CAT_DEFAULT, "decoder-request", 0, [=] {
        auto* handshake = static_cast<DecoderHandshake*>(self);
        return handshake->reply(handshake->askMainSystem({sink, type}), type);
    });
}

/// What the sink is told.
gint DecoderHandshake::reply(Answer answer, const gchar* type) {
    struct Names {
        const char* record;
        const char* signal;
    };
    const Names names = answer == Answer::Granted   ? Names{"granted", "DecoderGranted"}
                        : answer == Answer::Refused ? Names{"refused", "DecoderRefused"}
                                                    : Names{"interrupted", "DecoderInterrupted"};
    if (timeline::isOn())
        timeline::instant("decoder", names.record);
    ScriptEvents::instance().publishSignal(names.signal, [type] {
        return ScriptValue{{"kind", type != nullptr ? type : ""}};
    });
    if (answer == Answer::Refused) {
        GST_ERROR("***E: resources not available (%d)", resourcesState());
        m_client.refused();
    }
    return answer == Answer::Granted ? 1 : 0;
}

bool DecoderHandshake::isStopped(const Request& request) const {
    return m_stopped.count(nullptr) + m_stopped.count(request.sink) > 0;
}

bool DecoderHandshake::isInterrupted(const Request& request) const {
    return isStopped(request) || isFlushing(request.pad.get());
}

void DecoderHandshake::wake() {
    {
        const GLibLock lock(m_lock);
        m_changed.broadcast(m_lock);
    }
    m_mainSystem.wake();
}

DecoderHandshake::Answer DecoderHandshake::askBoth(const Request& request) {
    const Answer answer = askClient(request);
    return answer == Answer::Granted ? askMainSystem(request)
                                     : note(answer, WaitFor::Client, request);
}

DecoderHandshake::Answer DecoderHandshake::askClient(const Request& request) {
    const Waiting waiting(*this, request, WaitFor::Client);
    std::shared_ptr<Question> question;
    bool isNew = false;
    uint32_t needed = 0;
    {
        const GLibLock lock(m_lock);
        if (isInterrupted(request))
            return Answer::Interrupted;
        if (m_resources_state == ResourcesGranted)
            return Answer::Granted;
        isNew = m_question == nullptr || m_question->isWaitedFor;
        if (isNew && m_resources_state == ResourcesAsked)
            return Answer::Refused;
        if (isNew) {
            m_resources_state = ResourcesAsked;
            m_question = std::make_shared<Question>();
        }
        m_question->isWaitedFor = true;
        question = m_question;
        needed = m_resources_needed;
    }
    if (isNew) {
        GST_INFO("about asks for resources (%u)", needed);
        if (timeline::isOn())
            timeline::flow(timeline::Flow::Start, "resources", timeline::idOf(question.get()));
        const auto ask = [this] { return m_client.ask(), true; };
        if (!guarded(GST_CAT_DEFAULT, "the client", false, ask))
            completeRequest(false);
    }
    const GLibLock lock(m_lock);
    return waitForClient(question, request);
}

DecoderHandshake::Answer DecoderHandshake::waitForClient(const std::shared_ptr<Question>& question,
                                                         const Request& request) {
    while (!question->answer && !isInterrupted(request))
        m_changed.wait(m_lock);
    if (!question->answer && !isStopped(request)) {
        question->isWaitedFor = false; // for whoever asks after the flush
        return Answer::Interrupted;
    }
    if (m_question == question)
        abandonQuestion();
    if (!question->answer)
        return Answer::Interrupted;
    return *question->answer ? Answer::Granted : Answer::Refused;
}

/// Who asks next begins anew, unless the client has granted what it was asked for.
void DecoderHandshake::abandonQuestion() {
    m_question.reset();
    if (m_resources_state == ResourcesAsked)
        m_resources_state = NoResources;
}

DecoderHandshake::Answer DecoderHandshake::askMainSystem(const Request& request) {
    tellForwarded(request.sink);
    const auto interrupted = [&] {
        const GLibLock lock(m_lock);
        return isInterrupted(request);
    };
    const Waiting waiting(*this, request, WaitFor::MainSystem);
    if (request.kind && m_mainSystem.requestDecoder(*request.kind, this, interrupted))
        return note(Answer::Granted, WaitFor::MainSystem, request);
    const auto answer = interrupted() ? Answer::Interrupted : Answer::Refused;
    return note(answer, WaitFor::MainSystem, request);
}

void DecoderHandshake::completeRequest(bool success) {
    const GLibLock lock(m_lock);
    m_resources_state = success ? ResourcesGranted : NoResources;
    if (m_question != nullptr) {
        if (!m_question->answer && timeline::isOn())
            timeline::flow(timeline::Flow::End, "resources", timeline::idOf(m_question.get()));
        m_question->answer = success;
    }
    m_changed.broadcast(m_lock);
}

int DecoderHandshake::resourcesState() {
    const GLibLock lock(m_lock);
    return m_resources_state;
}

int DecoderHandshake::noteNeed(const gchar* type) {
    const GLibLock lock(m_lock);
    if (const auto kind = mediaKindOf('+', type))
        m_resources_needed |= bitOf(*kind);
    if (const auto kind = mediaKindOf('-', type))
        m_resources_needed &= ~bitOf(*kind);
    return static_cast<int>(m_resources_needed);
}

DecoderHandshake::Stop::Stop(DecoderHandshake& handshake, GstElement* sink)
    : m_handshake(handshake), m_sink(sink) {
    {
        const GLibLock lock(m_handshake.m_lock);
        m_handshake.m_stopped.insert(m_sink);
        // What nobody waits for since a flush was asked for a player that is no more.
        if (m_sink == nullptr && m_handshake.m_question != nullptr &&
            !m_handshake.m_question->isWaitedFor)
            m_handshake.abandonQuestion();
    }
    m_handshake.wake();
}

DecoderHandshake::Stop::~Stop() {
    const GLibLock lock(m_handshake.m_lock);
    m_handshake.m_stopped.erase(m_handshake.m_stopped.find(m_sink));
}
