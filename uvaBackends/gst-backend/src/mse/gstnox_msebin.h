#ifndef GSTNOX_MSEBIN_H
#define GSTNOX_MSEBIN_H

#include "MediaKind.h"
#include "base/glib_lock.h"
#include "base/gst_ptr.h"
#include "mse/sample_decrypter.h"
#include "mse/sample_intake.h"
#include "mse/sample_queue.h"
#include "uva/uva_backend.h"

#include <gst/app/gstappsrc.h>

#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class MediaSourceGroup;
class UVASample;

/// One attached media source: an appsrc, a parser where there is one, and the hardware sink, in a
/// bin of their own, and the queue of what the host has delivered and the appsrc has not asked for.
///
/// The queue has no bound: the host is asked for so many samples at a time, and only when it is
/// empty. One thread at a time hands on what is queued; others leave it what they bring. `lock`
/// guards the order of the samples; the group's lock is taken under it. Samples are read,
/// decrypted, pushed and deleted with no lock held: each may run code of the host's or wait for
/// GStreamer.
class GstMseBin {
public:
    /// Takes ownership of the description; the group outlives the bin.
    GstMseBin(MediaSourceGroup& group, UVABackend::SourceDescription* source);
    ~GstMseBin();
    GstMseBin(const GstMseBin&) = delete;
    GstMseBin& operator=(const GstMseBin&) = delete;

    /// Makes the elements, with these callbacks of the appsrc; false, with the reason logged, when
    /// one is missing or the MIME type is neither audio nor video. Host thread.
    bool Create(GstAppSrcCallbacks callbacks, gpointer user);
    /// Drops what is queued. No sample is taken from then on.
    void close() EXCLUDES(lock);
    /// Closes, stops the elements and takes them out of the pipeline. Waits for the streaming
    /// thread; no other thread is in write(). Host thread.
    void Destroy() EXCLUDES(lock);

    /// Queues the samples of a data event, in order. The array's slots are cleared.
    void write(UVASample** samples) EXCLUDES(lock);
    void writeEndOfStream() EXCLUDES(lock);

    // From the appsrc.
    /// True when the queue ran dry: more is to be asked for.
    bool needsData() EXCLUDES(lock);
    void hasEnoughData() { needData = false; }
    /// Drops what is queued. False when there is nothing to begin anew: the appsrc has only been
    /// started, or a seek of the backend's has dropped all before.
    bool seek() EXCLUDES(lock);

    /// The steps of a seek. From the first on nothing is asked for, and what is queued or comes is
    /// dropped: it belongs before the seek. What is written while the pipeline seeks belongs behind
    /// it, and waits for the end. The answer of the last is that of needsData().
    void closeForSeek() EXCLUDES(lock);
    void beginSeek() EXCLUDES(lock);
    bool endSeek() EXCLUDES(lock);

    /// From the first sample since creation or flush, or from the position if that is later, to the
    /// end of the latest sample. Empty when there is none.
    std::vector<UVABackend::TimeRange> bufferedRanges(guint64 position) EXCLUDES(lock);

    /// How it stands. Any thread.
    struct Facts {
        std::string name;
        GstState state;
        std::size_t queued;      ///< samples, caps and events
        guint64 bytes;           ///< of the samples
        bool needsData;          ///< the appsrc wants some
        bool hasEnded;           ///< its end has been handed over
        gint64 neededSince;      ///< of g_get_monotonic_time(), when it does
        GstClockTime firstStart; ///< of the samples since the start or the last flush, or none
        GstClockTime lastEnd;
        std::pair<int, int> frameRate; ///< see SampleIntake
        SampleDecrypter::Counters decryption;
    };
    Facts facts() EXCLUDES(lock);
    /// One line for the shell.
    std::string describe() EXCLUDES(lock);

    unsigned int id() const { return m_id; }
    bool isActive(); ///< PAUSED or PLAYING
    /// Out of use while another source of its kind plays.
    void stop();
    GstElement* element() const { return bin.get(); }
    GstElement* sink() const { return m_sink.get(); }

    MediaKind kind = MediaKind::Audio; ///< from Create() on
    GCharPtr name;                     ///< kind and id, from Create() on

private:
    /// What is to be handed to the appsrc.
    struct Step {
        SampleQueue::Item item;                          ///< null: there is nothing to do
        GstClockTime segmentStart = GST_CLOCK_TIME_NONE; ///< to be installed before it, or none
        bool isProtected = false;                        ///< it is to be decrypted before
        unsigned int flushes = 0;                        ///< when it was taken
        std::size_t remaining = 0;                       ///< what is queued behind it
        /// The host's sample, which is not to go while a flush may be waiting for the push.
        GstPtr<GstMemory> payload;
    };
    /// Open; all is dropped; all is kept.
    enum class Intake { Open, Closed, Waiting };

    bool link(GstPtr<GstElement> parser);
    GstPtr<GstElement> makeParser();

    void queueSample(SampleIntake::Sample sample) REQUIRES(lock);
    /// What was queued, for the caller to drop without the lock.
    [[nodiscard]] SampleQueue::Items flush(int keepCaps) REQUIRES(lock);
    bool takesSamples() REQUIRES(lock) { return !m_isRemoved && m_intake != Intake::Closed; }

    /// Hands the appsrc what it asks for. True when the queue is empty afterwards.
    bool pushToSource() EXCLUDES(lock);
    Step nextStep() EXCLUDES(lock);
    GstClockTime beginPush() REQUIRES(lock);
    void waitForPush() REQUIRES(lock);
    void handOver(Step& step) EXCLUDES(lock);
    void handOverBuffer(Step& step) EXCLUDES(lock);
    /// Decrypts it, or leaves it as it is.
    void handleContentProtectionMeta(GstBuffer* buffer);

    MediaSourceGroup& m_group;
    const std::unique_ptr<UVABackend::SourceDescription> source;
    const unsigned int m_id;
    GstPtr<GstElement> appsrc; // made by Create(), kept until the end: callbacks may be under way
    GstPtr<GstElement> m_sink;
    GstPtr<GstElement> bin;

    SampleIntake m_samples{m_group};
    SampleDecrypter m_decrypter{m_group}; // of the thread that is feeding
    const char* m_capsName = nullptr;     // the feeding thread's: of what the appsrc has; interned

    GLibMutex lock;
    GLibCondition m_pushed;
    std::atomic<bool> needData{false};    // the appsrc wants data
    std::atomic<gint64> m_neededSince{0}; // when it last said so
    std::atomic<bool> m_hasEnded{false};  // nothing is wanted behind the end
    bool m_isRemoved GUARDED_BY(lock) = false;
    bool m_wasAsked GUARDED_BY(lock) = false; // the appsrc has wanted data
    Intake m_intake GUARDED_BY(lock) = Intake::Open;
    SampleQueue m_queue GUARDED_BY(lock);
    bool m_isFeeding GUARDED_BY(lock) = false; // a thread is in pushToSource()
    bool m_isPushing GUARDED_BY(lock) = false; // what it has taken is on its way into the appsrc
    unsigned int m_flushes GUARDED_BY(lock) = 0;
    GstClockTime m_segmentStart GUARDED_BY(lock) = GST_CLOCK_TIME_NONE; // to be installed, or none
};

#endif
