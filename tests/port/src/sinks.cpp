/**
 * \file   sinks.cpp
 * \brief  halvideosink and halaudiosink of the other set: one element each, decoder included.
 *
 * The base class is given decoded pictures and sounds in the order of presentation, through the functions it has put
 * on the pad, in front of which stand this file's; so pre-roll, clock, segments and the end are its own. (Its own
 * virtual functions come too late for that: they are called under its lock, and what they are given is synchronised.)
 *
 * OTHERSET_JOURNAL names a file that gets a line when a sink is stopped: what it has shown or played.
 */
#include "decoder.hpp"

#include <otherset/screen.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>

#include <gst/base/gstbasesink.h>
#include <gst/video/video.h>

using otherset::Decoder;

namespace
{

/** \brief Lets the sinks of a pipeline ask for their decoders one after the other. */
class Gate
{
  public:
    /** \brief Waits for the pipeline's turn; false when Stop, which wake() has looked at anew, answers true. */
    template <typename Question> bool Enter(const GstObject *Pipeline, const Question &Stop)
    {
        std::unique_lock Hold(m_mutex);
        m_changed.wait(Hold, [&] { return Stop() || m_asking.count(Pipeline) == 0; });
        return !Stop() && m_asking.insert(Pipeline).second;
    }
    void Leave(const GstObject *Pipeline)
    {
        {
            const std::lock_guard Hold(m_mutex);
            m_asking.erase(Pipeline);
        }
        m_changed.notify_all();
    }
    void Wake()
    {
        {
            const std::lock_guard Hold(m_mutex);
        }
        m_changed.notify_all();
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::set<const GstObject *> m_asking;
};

Gate &TheGate()
{
    static Gate &OnlyOne = *new Gate;
    return OnlyOne;
}

enum class Grant { Unasked, Granted, Refused };

struct Sink
{
    GstBaseSink Base;

    // The streaming thread's, or of a change of state while there is none.
    Grant HasDecoder;
    Decoder *Open;
    GstCaps *Caps;
    GQueue Segments; ///< events that wait for the first picture behind them
    gint64 SegmentsCame, SegmentsPassed;
    bool Holds; ///< the decoder may have pictures
    GstClockTime KeptUntil; ///< of a refused one, running in stream time: up to where it has kept time
    unsigned Units, Shown;
    int Width, Height; ///< of the format that was told
    bool Told;
    guint OutputDdp;
};

struct SinkClass
{
    GstBaseSinkClass Base;
    const char *Kind; ///< as it is asked for
};

GstBaseSinkClass *ParentClass;
GstPadChainFunction BaseChain;
GstPadEventFunction BaseEvent;
guint DecoderRequest;

const char *KindOf(Sink *This)
{
    return reinterpret_cast<SinkClass *>(G_OBJECT_GET_CLASS(This))->Kind;
}

bool IsVideo(Sink *This)
{
    return KindOf(This)[0] == 'v';
}

void Post(Sink *This, GstStructure *What)
{
    gst_element_post_message(GST_ELEMENT(This), gst_message_new_application(GST_OBJECT(This), What));
}

void TellNeed(Sink *This, char Sign)
{
    const std::string Type = Sign + std::string(KindOf(This));
    Post(This, gst_structure_new("GstNoxDecoderNeeded", "type", G_TYPE_STRING, Type.c_str(), nullptr));
}

// ---- asking

/** \brief Whether nobody wants an answer any more: a flush, or the sink or a parent is going down. */
bool IsInterrupted(Sink *This)
{
    if (GST_PAD_IS_FLUSHING(GST_BASE_SINK_PAD(This)))
        return true;
    for (auto *Up = GST_OBJECT(This); Up && GST_IS_ELEMENT(Up); Up = GST_OBJECT_PARENT(Up))
        if (GST_STATE_TARGET(Up) < GST_STATE_PAUSED)
            return true;
    return false;
}

GstObject *PipelineOf(Sink *This)
{
    auto *Top = GST_OBJECT(This);
    while (GST_OBJECT_PARENT(Top))
        Top = GST_OBJECT_PARENT(Top);
    return Top;
}

GstFlowReturn AskOnce(Sink *This)
{
    if (This->HasDecoder != Grant::Unasked)
        return GST_FLOW_OK;
    const auto *Pipeline = PipelineOf(This);
    const auto Interrupted = [This] { return IsInterrupted(This); };
    if (!TheGate().Enter(Pipeline, Interrupted))
        return GST_FLOW_FLUSHING;
    int Answer = 0;
    g_signal_emit(This, DecoderRequest, 0, KindOf(This), &Answer);
    TheGate().Leave(Pipeline);
    if (Answer == 0 && IsInterrupted(This))
        return GST_FLOW_FLUSHING;
    This->HasDecoder = Answer ? Grant::Granted : Grant::Refused;
    if (Answer)
        TellNeed(This, '+');
    return GST_FLOW_OK;
}

// ---- pictures

GstVideoFormat FormatOf(int Format)
{
    switch (Format)
    {
    case AV_PIX_FMT_YUV420P:
    case AV_PIX_FMT_YUVJ420P: return GST_VIDEO_FORMAT_I420;
    case AV_PIX_FMT_YUV422P:
    case AV_PIX_FMT_YUVJ422P: return GST_VIDEO_FORMAT_Y42B;
    case AV_PIX_FMT_YUV444P:
    case AV_PIX_FMT_YUVJ444P: return GST_VIDEO_FORMAT_Y444;
    case AV_PIX_FMT_YUV420P10LE: return GST_VIDEO_FORMAT_I420_10LE;
    default: return GST_VIDEO_FORMAT_UNKNOWN;
    }
}

/** \brief The picture for the screen, or null where its format is none of this set's. */
GstBuffer *Converted(const AVFrame &Frame)
{
    GstVideoInfo From, To;
    if (!gst_video_info_set_format(&From, FormatOf(Frame.format), static_cast<guint>(Frame.width), static_cast<guint>(Frame.height)))
        return nullptr;
    gst_video_info_set_format(&To, GST_VIDEO_FORMAT_RGBA, static_cast<guint>(Frame.width), static_cast<guint>(Frame.height));
    if (Frame.colorspace != AVCOL_SPC_UNSPECIFIED)
        From.colorimetry.matrix = gst_video_color_matrix_from_iso(Frame.colorspace);
    if (Frame.color_range == AVCOL_RANGE_JPEG)
        From.colorimetry.range = GST_VIDEO_COLOR_RANGE_0_255;

    GstBuffer *Planes = gst_buffer_new();
    gsize Offsets[GST_VIDEO_MAX_PLANES] = {}, Offset = 0;
    gint Strides[GST_VIDEO_MAX_PLANES] = {};
    for (guint Plane = 0; Plane < GST_VIDEO_INFO_N_PLANES(&From); ++Plane)
    {
        Strides[Plane] = Frame.linesize[Plane];
        Offsets[Plane] = Offset;
        const gsize Size = static_cast<gsize>(Strides[Plane]) *
                           static_cast<gsize>(GST_VIDEO_FORMAT_INFO_SCALE_HEIGHT(From.finfo, Plane, Frame.height));
        gst_buffer_append_memory(Planes, gst_memory_new_wrapped(GST_MEMORY_FLAG_READONLY, Frame.data[Plane], Size, 0, Size,
                                                                nullptr, nullptr));
        Offset += Size;
    }
    gst_buffer_add_video_meta_full(Planes, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&From),
                                   static_cast<guint>(Frame.width), static_cast<guint>(Frame.height),
                                   GST_VIDEO_INFO_N_PLANES(&From), Offsets, Strides);
    GstBuffer *Picture = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&To), nullptr);
    GstVideoFrame In, Out;
    gst_video_frame_map(&In, &From, Planes, GST_MAP_READ);
    gst_video_frame_map(&Out, &To, Picture, GST_MAP_WRITE);
    GstVideoConverter *Converter = gst_video_converter_new(&From, &To, nullptr);
    gst_video_converter_frame(Converter, &In, &Out);
    gst_video_converter_free(Converter);
    gst_video_frame_unmap(&Out);
    gst_video_frame_unmap(&In);
    gst_buffer_unref(Planes);
    gst_buffer_add_video_meta(Picture, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_RGBA, static_cast<guint>(Frame.width),
                              static_cast<guint>(Frame.height));
    return Picture;
}

struct Ratio
{
    int Numerator, Denominator;
};

Ratio RatioInCaps(Sink *This, const char *Field, Ratio Else)
{
    Ratio Found = Else;
    gst_structure_get_fraction(gst_caps_get_structure(This->Caps, 0), Field, &Found.Numerator, &Found.Denominator);
    return Found.Numerator > 0 ? Found : Else;
}

void TellVideoFormat(Sink *This, const AVFrame &Frame)
{
    if (This->Told && This->Width == Frame.width && This->Height == Frame.height)
        return;
    This->Told = true;
    This->Width = Frame.width;
    This->Height = Frame.height;
    const AVRational Sample = Frame.sample_aspect_ratio;
    const Ratio Pixel = RatioInCaps(This, "pixel-aspect-ratio", Sample.num > 0 ? Ratio{Sample.num, Sample.den} : Ratio{1, 1});
    const Ratio Rate = RatioInCaps(This, "framerate", {0, 1});
    gint Across = 0, Down = 0;
    gst_util_fraction_multiply(Frame.width, Frame.height, Pixel.Numerator, Pixel.Denominator, &Across, &Down);
    const int DisplayWidth = static_cast<int>(gst_util_uint64_scale_int(static_cast<guint64>(Frame.width), Pixel.Numerator, Pixel.Denominator));
    Post(This, gst_structure_new("GstNoxVideoFormat", "width", G_TYPE_INT, Frame.width, "height", G_TYPE_INT, Frame.height,
                                 "disp-width", G_TYPE_INT, DisplayWidth, "disp-height", G_TYPE_INT, Frame.height,
                                 "display-aspect-ratio", GST_TYPE_FRACTION, Across, Down,
                                 "frame-rate", GST_TYPE_FRACTION, Rate.Numerator, Rate.Denominator, nullptr));
}

void TellAudioFormat(Sink *This)
{
    if (This->Told)
        return;
    This->Told = true;
    Post(This, gst_structure_new("GstNoxAudioFormat", "codec", G_TYPE_STRING, This->Open->Name(), nullptr));
}

// ---- data

GstClockTime DurationOf(Sink *This, const AVFrame &Frame)
{
    if (!IsVideo(This))
        return gst_util_uint64_scale_int(static_cast<guint64>(Frame.nb_samples), GST_SECOND, std::max(Frame.sample_rate, 1));
    if (Frame.pkt_duration > 0)
        return static_cast<GstClockTime>(Frame.pkt_duration);
    const Ratio Rate = RatioInCaps(This, "framerate", {25, 1});
    return gst_util_uint64_scale_int(GST_SECOND, Rate.Denominator, Rate.Numerator);
}

bool IsInSegment(Sink *This, GstClockTime Start, GstClockTime Duration)
{
    const GstSegment &Segment = GST_BASE_SINK(This)->segment;
    return Segment.format == GST_FORMAT_TIME && gst_segment_clip(&Segment, GST_FORMAT_TIME, Start, Start + Duration, nullptr, nullptr);
}

/** \brief Gives the base class the segments that came up to a number. */
void PassSegments(Sink *This, gint64 Number)
{
    for (; This->SegmentsPassed < Number; ++This->SegmentsPassed)
        if (auto *Segment = static_cast<GstEvent *>(g_queue_pop_head(&This->Segments)))
            BaseEvent(GST_BASE_SINK_PAD(This), GST_OBJECT(This), Segment);
}

/** \brief Gives a picture or sounds to the base class, which waits for their time. */
GstFlowReturn Present(Sink *This, const AVFrame &Frame)
{
    PassSegments(This, Frame.reordered_opaque);
    const GstClockTime Duration = DurationOf(This, Frame);
    const auto Start = Frame.best_effort_timestamp == AV_NOPTS_VALUE ? GST_CLOCK_TIME_NONE : static_cast<GstClockTime>(Frame.best_effort_timestamp);
    if (IsVideo(This))
        TellVideoFormat(This, Frame);
    else
        TellAudioFormat(This);
    if (!GST_CLOCK_TIME_IS_VALID(Start) || !IsInSegment(This, Start, Duration))
        return GST_FLOW_OK; // between a key frame and the target of a seek
    GstBuffer *Ready = IsVideo(This) ? Converted(Frame) : gst_buffer_new();
    if (!Ready)
    {
        GST_ELEMENT_ERROR(This, STREAM, FORMAT, ("This set does not show pictures of this format."), ("pixel format %d", Frame.format));
        return GST_FLOW_ERROR;
    }
    GST_BUFFER_PTS(Ready) = Start;
    GST_BUFFER_DURATION(Ready) = Duration;
    return BaseChain(GST_BASE_SINK_PAD(This), GST_OBJECT(This), Ready);
}

GstFlowReturn DecodeUnit(Sink *This, GstBuffer *Unit)
{
    This->Holds = Unit != nullptr;
    return This->Open ? This->Open->Decode(Unit, This->SegmentsCame, [This](const AVFrame &Frame) { return Present(This, Frame); }) : GST_FLOW_OK;
}

/** \brief Time goes on without a decoder. Units come in the order of decoding: gaps only go forward. */
void KeepTime(Sink *This, GstBuffer *Unit)
{
    const GstClockTime Start = GST_BUFFER_PTS(Unit);
    const GstClockTime Duration = GST_BUFFER_DURATION_IS_VALID(Unit) ? GST_BUFFER_DURATION(Unit) : 40 * GST_MSECOND;
    if (!GST_CLOCK_TIME_IS_VALID(Start) || !IsInSegment(This, Start, Duration) ||
        (GST_CLOCK_TIME_IS_VALID(This->KeptUntil) && Start < This->KeptUntil))
        return;
    This->KeptUntil = Start + Duration;
    BaseEvent(GST_BASE_SINK_PAD(This), GST_OBJECT(This), gst_event_new_gap(Start, Duration));
}

GstFlowReturn Chain(GstPad *, GstObject *Parent, GstBuffer *Unit)
{
    auto *This = reinterpret_cast<Sink *>(Parent);
    GstFlowReturn Flow = AskOnce(This);
    if (Flow == GST_FLOW_OK && This->HasDecoder == Grant::Refused)
        KeepTime(This, Unit);
    else if (Flow == GST_FLOW_OK)
    {
        if (!This->Open && This->Caps)
            This->Open = Decoder::Open(This->Caps).release();
        ++This->Units;
        Flow = This->Open ? DecodeUnit(This, Unit) : GST_FLOW_NOT_NEGOTIATED;
    }
    gst_buffer_unref(Unit);
    return Flow;
}

/** \brief Brings out what the decoder still has, and what waits for that. */
void Drain(Sink *This)
{
    DecodeUnit(This, nullptr);
    PassSegments(This, This->SegmentsCame);
}

void ForgetSegments(Sink *This)
{
    g_queue_clear_full(&This->Segments, reinterpret_cast<GDestroyNotify>(gst_event_unref));
    This->SegmentsPassed = This->SegmentsCame;
}

void Close(Sink *This)
{
    delete This->Open;
    This->Open = nullptr;
    This->Holds = This->Told = false;
}

gboolean Event(GstPad *Pad, GstObject *Parent, GstEvent *What)
{
    auto *This = reinterpret_cast<Sink *>(Parent);
    switch (GST_EVENT_TYPE(What))
    {
    case GST_EVENT_FLUSH_START: TheGate().Wake(); break;
    case GST_EVENT_FLUSH_STOP:
        if (This->Open)
            This->Open->Flush();
        This->Holds = false;
        ForgetSegments(This);
        This->KeptUntil = GST_CLOCK_TIME_NONE;
        break;
    case GST_EVENT_CAPS: {
        GstCaps *Caps = nullptr;
        gst_event_parse_caps(What, &Caps);
        if (This->Caps && !Decoder::GoesOn(This->Caps, Caps))
        {
            Drain(This);
            Close(This);
        }
        gst_caps_replace(&This->Caps, Caps);
        break;
    }
    case GST_EVENT_SEGMENT:
        // A parser sends one in the middle of a stream, too: what the decoder has is of the one before.
        ++This->SegmentsCame;
        g_queue_push_tail(&This->Segments, What);
        if (!This->Holds)
            PassSegments(This, This->SegmentsCame);
        return TRUE;
    case GST_EVENT_EOS: Drain(This); break;
    default: break;
    }
    return BaseEvent(Pad, Parent, What);
}

GstFlowReturn Render(GstBaseSink *Base, GstBuffer *Ready)
{
    auto *This = reinterpret_cast<Sink *>(Base);
    ++This->Shown;
    const GstVideoMeta *Meta = gst_buffer_get_video_meta(Ready);
    GstMapInfo Map;
    if (Meta && gst_buffer_map(Ready, &Map, GST_MAP_READ))
    {
        OtherSet_Show(This, Map.data, Meta->width, Meta->height);
        gst_buffer_unmap(Ready, &Map);
    }
    return GST_FLOW_OK;
}

GstFlowReturn Preroll(GstBaseSink *Base, GstBuffer *Ready)
{
    // The first picture stands while the pipeline is paused; it is rendered, and counted, when it plays.
    auto *This = reinterpret_cast<Sink *>(Base);
    const auto Shown = This->Shown;
    const GstFlowReturn Flow = Render(Base, Ready);
    This->Shown = Shown;
    return Flow;
}

// ---- states

void WriteJournal(Sink *This)
{
    const char *Name = std::getenv("OTHERSET_JOURNAL");
    FILE *Journal = Name ? std::fopen(Name, "a") : nullptr;
    if (!Journal)
        return;
    const char *Granted = This->HasDecoder == Grant::Granted ? "granted" : This->HasDecoder == Grant::Refused ? "refused" : "unasked";
    std::fprintf(Journal, "%s %s units=%u shown=%u ddp=%u\n", KindOf(This), Granted, This->Units, This->Shown, This->OutputDdp);
    std::fclose(Journal);
}

GstStateChangeReturn ChangeState(GstElement *Element, GstStateChange Change)
{
    auto *This = reinterpret_cast<Sink *>(Element);
    if (Change == GST_STATE_CHANGE_PAUSED_TO_READY)
        TheGate().Wake();
    const auto Result = GST_ELEMENT_CLASS(ParentClass)->change_state(Element, Change);
    if (Change != GST_STATE_CHANGE_PAUSED_TO_READY)
        return Result;
    WriteJournal(This);
    Close(This);
    ForgetSegments(This);
    gst_caps_replace(&This->Caps, nullptr);
    OtherSet_Clear(This);
    const bool HadOne = This->HasDecoder == Grant::Granted;
    This->HasDecoder = Grant::Unasked;
    This->KeptUntil = GST_CLOCK_TIME_NONE;
    This->Units = This->Shown = 0;
    if (HadOne)
        TellNeed(This, '-');
    return Result;
}

// ---- types

void SetProperty(GObject *Object, guint, const GValue *Value, GParamSpec *)
{
    reinterpret_cast<Sink *>(Object)->OutputDdp = g_value_get_uint(Value);
}

void GetProperty(GObject *Object, guint, GValue *Value, GParamSpec *)
{
    g_value_set_uint(Value, reinterpret_cast<Sink *>(Object)->OutputDdp);
}

int GrantByDefault(GstElement *, const char *)
{
    return 1;
}

gboolean KeepFirst(GSignalInvocationHint *, GValue *Result, const GValue *Answer, gpointer)
{
    g_value_copy(Answer, Result);
    return FALSE;
}

void InitClass(gpointer Class, gpointer)
{
    ParentClass = static_cast<GstBaseSinkClass *>(g_type_class_peek_parent(Class));
    auto *Base = static_cast<GstBaseSinkClass *>(Class);
    Base->render = Render;
    Base->preroll = Preroll;
    GST_ELEMENT_CLASS(Class)->change_state = ChangeState;
    DecoderRequest = g_signal_new_class_handler("decoder-request", G_TYPE_FROM_CLASS(Class), G_SIGNAL_RUN_LAST,
                                                G_CALLBACK(GrantByDefault), KeepFirst, nullptr, nullptr, G_TYPE_INT, 1,
                                                G_TYPE_STRING);
}

void Init(GTypeInstance *Instance, gpointer)
{
    auto *This = reinterpret_cast<Sink *>(Instance);
    This->KeptUntil = GST_CLOCK_TIME_NONE;
    g_queue_init(&This->Segments);
}

struct Kind
{
    const char *Element, *Type, *Word, *Class, *Name, *Caps;
};

const Kind Video{"halvideosink", "OtherSetVideoSink", "video", "Sink/Video/Hardware", "Video decoder and plane of the other set",
                 "video/x-h264, stream-format=(string){ avc, avc3, byte-stream }, alignment=(string)au;"
                 "video/x-h265, stream-format=(string){ hvc1, hev1, byte-stream }, alignment=(string)au;"
                 "video/x-av1, alignment=(string){ tu, frame };"
                 "video/mpeg, mpegversion=(int){ 1, 2 }, systemstream=(boolean)false, parsed=(boolean)true;"
                 "video/mpeg, mpegversion=(int)4, systemstream=(boolean)false, parsed=(boolean)true;"
                 "video/x-vp8; video/x-vp9; video/x-theora"};
const Kind Audio{"halaudiosink", "OtherSetAudioSink", "audio", "Sink/Audio/Hardware", "Audio decoder and output of the other set",
                 "audio/mpeg, mpegversion=(int){ 2, 4 }, framed=(boolean)true, stream-format=(string){ raw, adts };"
                 "audio/mpeg, mpegversion=(int)1, parsed=(boolean)true;"
                 "audio/x-ac3, framed=(boolean)true; audio/x-eac3, framed=(boolean)true; audio/x-dts, framed=(boolean)true;"
                 "audio/x-opus; audio/x-vorbis; audio/x-flac, framed=(boolean)true;"
                 "audio/x-raw, format=(string){ S16LE, S16BE }, layout=(string)interleaved"};

void InitKind(gpointer Class, gpointer Data)
{
    const auto &This = *static_cast<const Kind *>(Data);
    static_cast<SinkClass *>(Class)->Kind = This.Word;
    auto *Element = GST_ELEMENT_CLASS(Class);
    gst_element_class_set_static_metadata(Element, This.Name, This.Class, This.Name, "The other set");
    GstCaps *Caps = gst_caps_from_string(This.Caps);
    gst_element_class_add_pad_template(Element, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, Caps));
    gst_caps_unref(Caps);
    if (&This != &Audio)
        return;
    G_OBJECT_CLASS(Class)->set_property = SetProperty;
    G_OBJECT_CLASS(Class)->get_property = GetProperty;
    g_object_class_install_property(G_OBJECT_CLASS(Class), 1,
                                    g_param_spec_uint("output-ddp", "Output DDP", "What goes out of the digital output", 0, 9, 0,
                                                      static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
}

void InitOfKind(GTypeInstance *Instance, gpointer)
{
    // The pad is there when the first class that has the template's pad is set up.
    auto *Pad = GST_BASE_SINK_PAD(Instance);
    BaseChain = GST_PAD_CHAINFUNC(Pad);
    BaseEvent = GST_PAD_EVENTFUNC(Pad);
    gst_pad_set_chain_function(Pad, Chain);
    gst_pad_set_event_function(Pad, Event);
}

GType AbstractType()
{
    const GTypeInfo Info{sizeof(SinkClass), nullptr, nullptr, InitClass, nullptr, nullptr, sizeof(Sink), 0, Init, nullptr};
    return g_type_register_static(GST_TYPE_BASE_SINK, "OtherSetSink", &Info, G_TYPE_FLAG_ABSTRACT);
}

gboolean Register(GstPlugin *Plugin, GType Parent, const Kind &Which)
{
    const GTypeInfo Info{sizeof(SinkClass), nullptr, nullptr, InitKind, nullptr, &Which, sizeof(Sink), 0, InitOfKind, nullptr};
    return gst_element_register(Plugin, Which.Element, GST_RANK_PRIMARY + 200, g_type_register_static(Parent, Which.Type, &Info, {}));
}

gboolean InitPlugin(GstPlugin *Plugin)
{
    const GType Parent = AbstractType();
    return Register(Plugin, Parent, Video) && Register(Plugin, Parent, Audio);
}

} // namespace

#define PACKAGE "other-set"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, othersinks, "Sinks of the other set", InitPlugin, "7", "LGPL", "other-set",
                  "the other set")
