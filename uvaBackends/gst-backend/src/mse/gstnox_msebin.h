#ifndef GSTNOX_MSEBIN_H
#define GSTNOX_MSEBIN_H

#include "base/glib_lock.h"
#include "base/gst_ptr.h"
#include "backend/gstnox_backend.h"
#include "mse/uva_gstcontentprotection.h"

#include <gst/app/gstappsrc.h>
#include <gst/base/gstqueuearray.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

class UVASample;
class UVAStreamConfig;

/// One attached media source: an appsrc, a parser where there is one, and the hardware sink, in a
/// bin of their own, and the queue of what the host has delivered and the appsrc has not asked for.
///
/// The queue has no bound: the host is asked for so many samples at a time, and only when it is
/// empty. `lock` guards it and what belongs to the order of the samples; a sample is decrypted
/// outside, since the host's content protection does that. Leaf but for the backend's lock and the
/// appsrc's own.
class GstNoxBackend::GstMseBin {
public:
    /// Takes ownership of the description; the backend outlives the bin.
    GstMseBin(GstNoxBackend* backend, SourceDescription* source);
    ~GstMseBin();
    GstMseBin(const GstMseBin&) = delete;
    GstMseBin& operator=(const GstMseBin&) = delete;

    /// Makes the elements; false, with the reason logged, when one is missing or the MIME type is
    /// neither audio nor video. Host thread.
    bool Create();
    /// Drops what is queued. No sample is taken from then on.
    void close() EXCLUDES(lock);
    /// Closes, stops the elements and takes them out of the pipeline. Waits for the streaming
    /// thread. Host thread.
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

    /// Hands the appsrc what it asks for. True when the queue is empty afterwards.
    bool pushToSource() REQUIRES(lock);
    /// The buffer to hand on: the decrypted copy, or the buffer itself when it is clear or cannot
    /// be decrypted. Takes the buffer. One thread at a time.
    GstPtr<GstBuffer> handleContentProtectionMeta(GstPtr<GstBuffer> buffer, const char* type);
    void pushCaps(GstPtr<GstCaps> caps) REQUIRES(lock);
    void pushBuffer(GstPtr<GstBuffer> buffer) REQUIRES(lock);
    void pushEvent(GstPtr<GstEvent> event) REQUIRES(lock);
    /// Drops what is queued; with `keepCaps` the last caps stay.
    void flush(int keepCaps) REQUIRES(lock);

    /// From the first sample since creation or flush, or from the position if that is later, to the
    /// end of the latest sample. Empty when there is none.
    std::vector<TimeRange> bufferedRanges(guint64 position) EXCLUDES(lock);

    /// One line for the shell.
    std::string describe() EXCLUDES(lock);

    unsigned int id() const { return m_id; }
    bool isActive(); ///< PAUSED or PLAYING
    /// Out of use while another source of its kind plays.
    void stop();
    GstElement* element() const { return bin.get(); }
    GstElement* sink() const { return m_sink.get(); }

    GLibMutex lock;
    const char* kind = nullptr; ///< "audio" or "video", from Create() on
    GCharPtr name;              ///< kind and id, from Create() on

private:
    struct ConfigKey;

    bool link(GstPtr<GstElement> parser);
    GstPtr<GstElement> makeParser();
    GstPtr<GstBuffer> wrap(std::unique_ptr<UVASample> sample) REQUIRES(lock);
    void takeTimes(GstBuffer* buffer, const UVASample& sample) REQUIRES(lock);
    void beginSegment(GstClockTime pts) REQUIRES(lock);
    void estimateFrameRate(UVASample** samples) REQUIRES(lock);
    GstPtr<GstCaps> capsOf(const UVAStreamConfig* config) REQUIRES(lock);
    void protect(GstBuffer* buffer, const UVASample& sample);
    void pushItem(GstPtr<GstMiniObject> item) REQUIRES(lock);
    void handOver(GstMiniObject* item) REQUIRES(lock);
    void handOverBuffer(GstPtr<GstBuffer> buffer) REQUIRES(lock);

    GstNoxBackend* const backend;
    const std::unique_ptr<SourceDescription> source;
    const unsigned int m_id;
    GstPtr<GstElement> appsrc; // made by Create(), kept until the end: callbacks may be under way
    GstPtr<GstElement> m_sink;
    GstPtr<GstElement> bin;

    std::atomic<bool> needData{false}; // the appsrc wants data; cleared while the lock is held
    bool removed GUARDED_BY(lock) = false;
    bool m_wasAsked GUARDED_BY(lock) = false; // the appsrc has wanted data
    enum class Intake { Open, Closed, Waiting };
    Intake m_intake GUARDED_BY(lock) = Intake::Open;
    GstQueueArray* const queue; // of GstMiniObject, each a reference; guarded by lock
    guint64 m_queuedBytes GUARDED_BY(lock) = 0;
    bool m_feeding GUARDED_BY(lock) = false; // a thread is in pushToSource()
    unsigned int m_flushes GUARDED_BY(lock) = 0;
    GstPtr<GstCaps> currentCaps GUARDED_BY(lock);    // the last ones queued
    const char* capsName GUARDED_BY(lock) = nullptr; // of those last handed to the appsrc; interned
    GstClockTime lastEnd GUARDED_BY(lock) = GST_CLOCK_TIME_NONE;
    GstClockTime m_firstStart GUARDED_BY(lock) = GST_CLOCK_TIME_NONE;
    GstClockTime m_segmentStart GUARDED_BY(lock) = GST_CLOCK_TIME_NONE; // to be installed, or none
    int fpsN GUARDED_BY(lock) = 0;
    int fpsD GUARDED_BY(lock) = 0;                        // 0: not estimated yet
    std::unique_ptr<ConfigKey> m_config GUARDED_BY(lock); // what m_configCaps were made from
    GstPtr<GstCaps> m_configCaps GUARDED_BY(lock);

    struct FreeContext {
        void operator()(GstUvaDecrypterContext* context) const {
            gst_uva_decrypter_context_free(context);
        }
    };
    // Of the thread that is feeding:
    std::unique_ptr<GstUvaDecrypterContext, FreeContext> decrypter;
    UVADRMBackend* m_drm = nullptr; // whose the decrypter is; not owned
};

#endif
