#ifndef GSTNOX_DECODER_H
#define GSTNOX_DECODER_H

#include "MediaKind.h"
#include "base/glib_lock.h"
#include "base/gst_ptr.h"
#include "timeline/timeline.h"

#include <gst/gst.h>

#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

class CUvaGstIfReceiver;

/// How the sinks of one backend come by their decoders: the client is asked once for them all, then
/// the main system for each.
///
/// A request ends with what was answered, or interrupted: by a flush of the sink that asked, so
/// that a seek goes through, or by a Stop. An interrupted sink asks again with its next data. The
/// client's answer is not lost meanwhile: who asks next waits for it, or takes it.
///
/// Thread-safe. Requests are made on streaming threads, which wait there. To the main system's
/// receiver it is whose the decoders are.
class DecoderHandshake {
public:
    /// Called without a lock, on the sink's streaming thread.
    struct Client {
        /// Puts the question. The answer may come from inside; what it throws is a refusal.
        std::function<void()> ask;
        /// A request was refused, by whom ever.
        std::function<void()> refused;
    };

    DecoderHandshake(CUvaGstIfReceiver& mainSystem, Client client)
        : m_mainSystem(mainSystem), m_client(std::move(client)) {}

    /// What a sink may be: of a URL, or of a media source, which the client has fed: it is not
    /// asked.
    enum class SinkOf { Url, MediaSource };
    /// From now on the sink's "decoder-request" is answered here, and a flush of its pad "sink"
    /// interrupts that. The handshake outlives the sink's streaming threads.
    void attach(GstElement* sink, SinkOf what);

    // Of the sinks' signal "decoder-request"; `type` is "audio" or "video", `self` the
    // DecoderHandshake. 1 or 0.
    static gint decoder_request_cb(GstElement* sink, const gchar* type, gpointer self) noexcept;
    static gint source_decoder_request_cb(GstElement* sink, const gchar* type,
                                          gpointer self) noexcept;

    /// The client's answer. Any thread.
    void completeRequest(bool success) EXCLUDES(m_lock);

    /// 0 nobody has asked, 1 the client is being asked, 2 it has granted.
    int resourcesState() EXCLUDES(m_lock);

    /// What a sink announces: "+audio", "-audio", "+video" or "-video". The kinds in use, a bit
    /// each: 1 audio, 2 video.
    int noteNeed(const gchar* type) EXCLUDES(m_lock);

    /// A sink that waits for an answer.
    enum class WaitFor { Client, MainSystem };
    struct Wait {
        WaitFor whom;
        std::string sink; ///< its name
        std::string kind; ///< "audio" or "video"; empty for another
        gint64 since;     ///< of g_get_monotonic_time()
    };
    std::vector<Wait> waits() EXCLUDES(m_lock);
    /// The latest refusal, until a sink of its kind is granted: whose, and since when; none.
    std::optional<Wait> refusal() EXCLUDES(m_lock);

    /// Interrupts requests for as long as it lives: all, or those of one sink. It outlives the
    /// streaming threads that are to end.
    class Stop {
    public:
        explicit Stop(DecoderHandshake& handshake, GstElement* sink = nullptr);
        ~Stop();
        Stop(const Stop&) = delete;
        Stop& operator=(const Stop&) = delete;

    private:
        DecoderHandshake& m_handshake;
        GstElement* const m_sink;
    };

private:
    enum class Answer { Granted, Refused, Interrupted };
    enum ResourcesState : int { NoResources = 0, ResourcesAsked = 1, ResourcesGranted = 2 };

    /// What the client was asked. The state alone would not do: the next sink may ask before the
    /// one that was answered has looked.
    struct Question {
        bool isWaitedFor = true;
        std::optional<bool> answer;
    };

    /// Who asks, for what; the client decides about any type, the main system has these kinds.
    struct Request {
        Request(GstElement* asking, const gchar* type);

        Wait waitFor(WaitFor whom) const; ///< from now on

        GstElement* const sink;
        const GstPtr<GstPad> pad; ///< the sink's; null: it has none
        const std::optional<MediaKind> kind;
    };

    /// Somebody waits while it lives.
    class Waiting;

    static GstPadProbeReturn onFlush(GstPad* pad, GstPadProbeInfo* info, gpointer self) noexcept;
    gint reply(Answer answer, const gchar* type);
    Answer note(Answer answer, WaitFor whose, const Request& request) EXCLUDES(m_lock);
    Answer askBoth(const Request& request) EXCLUDES(m_lock);
    Answer askClient(const Request& request) EXCLUDES(m_lock);
    Answer waitForClient(const std::shared_ptr<Question>& question, const Request& request)
        REQUIRES(m_lock);
    Answer askMainSystem(const Request& request) EXCLUDES(m_lock);
    bool isStopped(const Request& request) const REQUIRES(m_lock);
    bool isInterrupted(const Request& request) const REQUIRES(m_lock);
    void wake() EXCLUDES(m_lock);
    void abandonQuestion() REQUIRES(m_lock);

    CUvaGstIfReceiver& m_mainSystem;
    const Client m_client;
    GLibMutex m_lock; // never held while the client or the main system is asked
    GLibCondition m_changed;
    std::multiset<GstElement*> m_stopped GUARDED_BY(m_lock); // null: all sinks
    ResourcesState m_resources_state GUARDED_BY(m_lock) = NoResources;
    uint32_t m_resources_needed GUARDED_BY(m_lock) = 0;
    std::list<Wait> m_waits GUARDED_BY(m_lock);
    std::optional<Wait> m_refusal GUARDED_BY(m_lock);
    std::shared_ptr<Question> m_question GUARDED_BY(m_lock); // the last one, until it is settled
};

#endif
