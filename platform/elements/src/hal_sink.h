#ifndef NOXELEMENTS_HAL_SINK_H
#define NOXELEMENTS_HAL_SINK_H

#include "decode_chain.h"
#include "locks/mutex.h"
#include "request_gate.h"

#include <atomic>
#include <condition_variable>

namespace noxelements {

/// A sink that takes encoded data, as a set's decoder does: it asks for the decoder before the
/// first data, then decodes and renders, or swallows the data when refused. With no device to
/// render to, a silent output that keeps time takes its place; so it does when the set plays faster
/// than real time, see fast_clock.h.
///
/// Data and serialised events come on the streaming thread under the sink pad's stream lock, which
/// guards what carries no note of its own. State changes touch that only once the pad is inactive.
/// What is decoded comes to the output on the chain's own thread.
class HalSink {
public:
    HalSink(GstBin* bin, const char* kind, const MediaFormats& formats);
    virtual ~HalSink();
    HalSink(const HalSink&) = delete;
    HalSink& operator=(const HalSink&) = delete;

    GstStateChangeReturn changeState(GstStateChange transition);
    gboolean sendEvent(GstEvent* event);
    virtual void handleMessage(GstMessage* message);
    /// The clock of a set that plays faster than real time, null otherwise. The caller's reference.
    GstClock* provideClock() const;

    /// The application has passed the request under way on: other sinks may ask. Thread-safe.
    void requestForwarded();

    gint64 timeOffset() const { return m_timeOffset; }
    void setTimeOffset(gint64 offset); ///< nanoseconds; renders that much later. Thread-safe.

protected:
    GstBin* bin() const { return m_bin; }
    GstElement* silentOutput() const { return m_silent.get(); }
    bool isGranted() const { return m_decoder == Decoder::Granted; }

    /// Into the time line: what is put out, the first after a start or a flush by another name.
    void recordOutput(GstBuffer* buffer, const char* first, const char* others);
    void record(const char* what) const;

    /// Around the time from READY to PAUSED and back. Application's thread.
    virtual void activated() = 0;
    virtual void deactivated() = 0;
    /// An element with a "sink" pad that renders to a device; null when there is no device.
    virtual GstPtr<GstElement> makeDeviceOutput() = 0;
    /// The device output is in the bin. Streaming thread.
    virtual void deviceOutputAdded(GstElement* output) = 0;
    /// What to tell the application about decoded data; null when the caps say nothing. The chain's
    /// thread.
    virtual GstPtr<GstStructure> describe(const GstCaps* decoded, const MediaFormat& format) = 0;

private:
    enum class Decoder { Undecided, Granted, Refused };

    static GstFlowReturn onChain(GstPad* pad, GstObject* parent, GstBuffer* buffer);
    static GstFlowReturn onChainList(GstPad* pad, GstObject* parent, GstBufferList* list);
    static GstFlowReturn onEvent(GstPad* pad, GstObject* parent, GstEvent* event);
    static gboolean onQuery(GstPad* pad, GstObject* parent, GstQuery* query);
    static GstPadProbeReturn onOutputEvent(GstPad* pad, GstPadProbeInfo* info, gpointer sink);

    GstFlowReturn prepare(GstCaps* caps);
    GstFlowReturn buildChain(const MediaFormat& format, GstCaps* caps);
    bool drainChain();
    bool endDrain();
    bool decide();
    bool settle(bool granted);
    int request();
    bool isInterrupted() const;
    GstFlowReturn swallow(GstBuffer* buffer);
    void reportFormat(GstCaps* decoded);
    void announce(char sign);
    void post(GstPtr<GstStructure> structure);

    GstPtr<GstPad> seekPad() const;
    void seekFrom(GstPtr<GstPad> pad);
    void seekFromInput();

    void useDevice();
    void swapOutput(GstElement* next);
    void watchOutput(GstElement* output);
    void applyTimeOffset();
    void start();
    void interrupt();
    void stop();

    GstBin* const m_bin; // owns this object
    const char* const m_kind;
    const MediaFormats& m_formats;
    const GstPtr<GstElement> m_silent;
    const GstPtr<GstObject> m_fastClock; // null in real time
    GstElement* m_output = nullptr;      // in the bin: m_silent or the device's
    GstGhostPad* m_sinkPad = nullptr;
    DecodeChain m_chain;
    GstPtr<GstStructure> m_reportedFormat; // where decoded data is told about
    bool m_active = false;                 // since the step to PAUSED; state changes only

    std::atomic<Decoder> m_decoder{Decoder::Undecided};
    std::atomic<bool> m_stopping{false};
    std::atomic<bool> m_isFirstOutput{true}; // for the time line
    std::atomic<gint64> m_timeOffset{0};
    mutable locks::Mutex m_seekMutex; // leaf
    /// Where seeks set out upstream: before the output, or, without a whole chain, at the input.
    GstPtr<GstPad> m_seekPad GUARDED_BY(m_seekMutex);
    locks::Mutex m_waitMutex; // leaf but for the gate's and the object locks
    std::condition_variable m_drained;
    /// While the request is being made.
    std::shared_ptr<RequestGate> m_gate GUARDED_BY(m_waitMutex);
    bool m_insideGate GUARDED_BY(m_waitMutex) = false;
    /// The next end of stream at the output is the chain's alone.
    bool m_draining GUARDED_BY(m_waitMutex) = false;
};

} // namespace noxelements

struct GstHalSink {
    GstBin parent;
    noxelements::HalSink* impl;
};

struct GstHalSinkClass {
    GstBinClass parent;
    /// The default answer to "decoder-request", when nobody is connected.
    gint (*decoder_request)(GstHalSink* sink, const gchar* kind);
    /// What the action "decoder-request-forwarded" does.
    void (*decoder_request_forwarded)(GstHalSink* sink);
};

/// The abstract type of both sinks; whoever derives from it sets `impl`.
GType gst_hal_sink_get_type();
#define GST_TYPE_HAL_SINK (gst_hal_sink_get_type())

/// For the class initialisation of a derived type.
void gst_hal_sink_class_describe(GstElementClass* klass, const char* longName,
                                 const char* klassName, const char* description,
                                 const noxelements::MediaFormats& formats);

#endif
