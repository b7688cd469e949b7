#include "decoder.hpp"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace otherset
{

namespace
{

struct Codec
{
    const char *Caps;
    AVCodecID Id;
    const char *Name;
};

constexpr Codec Codecs[] = {
    {"video/x-h264", AV_CODEC_ID_H264, "H264"},
    {"video/x-h265", AV_CODEC_ID_HEVC, "H265"},
    {"video/x-vp8", AV_CODEC_ID_VP8, "VP8"},
    {"video/x-vp9", AV_CODEC_ID_VP9, "VP9"},
    {"video/x-av1", AV_CODEC_ID_AV1, "AV1"},
    {"video/x-theora", AV_CODEC_ID_THEORA, "THEORA"},
    {"video/mpeg, mpegversion=(int)4", AV_CODEC_ID_MPEG4, "MPEG4"},
    {"video/mpeg", AV_CODEC_ID_MPEG2VIDEO, "MPEG2"},
    {"audio/mpeg, mpegversion=(int)1, layer=(int)3", AV_CODEC_ID_MP3, "MP3"},
    {"audio/mpeg, mpegversion=(int)1", AV_CODEC_ID_MP2, "MP2"},
    {"audio/mpeg", AV_CODEC_ID_AAC, "AAC"},
    {"audio/x-ac3", AV_CODEC_ID_AC3, "AC3"},
    {"audio/x-eac3", AV_CODEC_ID_EAC3, "EAC3"},
    {"audio/x-dts", AV_CODEC_ID_DTS, "DTS"},
    {"audio/x-opus", AV_CODEC_ID_OPUS, "OPUS"},
    {"audio/x-vorbis", AV_CODEC_ID_VORBIS, "VORBIS"},
    {"audio/x-flac", AV_CODEC_ID_FLAC, "FLAC"},
    {"audio/x-raw, format=(string)S16LE", AV_CODEC_ID_PCM_S16LE, "PCM"},
    {"audio/x-raw, format=(string)S16BE", AV_CODEC_ID_PCM_S16BE, "PCM"},
};

using Bytes = std::vector<guint8>;

Bytes BytesOf(GstBuffer *Buffer)
{
    Bytes All(gst_buffer_get_size(Buffer));
    gst_buffer_extract(Buffer, 0, All.data(), All.size());
    return All;
}

/** \brief Headers in a row, as containers keep those of Vorbis: their number, sizes, bytes. */
Bytes Laced(const std::vector<Bytes> &Headers)
{
    Bytes All{static_cast<guint8>(Headers.size() - 1)};
    for (std::size_t Which = 0; Which + 1 < Headers.size(); ++Which)
    {
        All.insert(All.end(), Headers[Which].size() / 255, 255);
        All.push_back(static_cast<guint8>(Headers[Which].size() % 255));
    }
    for (const auto &Header : Headers)
        All.insert(All.end(), Header.begin(), Header.end());
    return All;
}

/** \brief What a FLAC decoder wants: the block behind "fLaC", of which the first header has more in front. */
Bytes StreamInfoOf(const Bytes &Header)
{
    constexpr std::size_t InFront = 17, Size = 34; // packet, version, number of headers, "fLaC", block's header
    return Header.size() < InFront + Size ? Bytes{} : Bytes(Header.begin() + InFront, Header.begin() + InFront + Size);
}

/** \brief The header that comes with samples has its numbers most significant byte first; a decoder wants it as in Ogg. */
Bytes OggOrderOf(Bytes OpusHead)
{
    const auto Turn = [&](std::size_t At, std::size_t Size) { std::reverse(&OpusHead[At], &OpusHead[At + Size]); };
    if (OpusHead.size() >= 19)
        Turn(10, 2), Turn(12, 4), Turn(16, 2); // pre-skip, rate, gain
    return OpusHead;
}

Bytes HeadersOf(const GstStructure *Caps, AVCodecID Id)
{
    if (const GValue *Data = gst_structure_get_value(Caps, "codec_data"))
    {
        const Bytes Found = BytesOf(gst_value_get_buffer(Data));
        return Id == AV_CODEC_ID_OPUS ? OggOrderOf(Found) : Found;
    }
    const GValue *List = gst_structure_get_value(Caps, "streamheader");
    std::vector<Bytes> Headers;
    for (guint Which = 0; List && Which < gst_value_array_get_size(List); ++Which)
        Headers.push_back(BytesOf(gst_value_get_buffer(gst_value_array_get_value(List, Which))));
    if (Headers.empty())
        return {};
    if (Id == AV_CODEC_ID_FLAC)
        return StreamInfoOf(Headers.front());
    return Id == AV_CODEC_ID_OPUS ? Headers.front() : Laced(Headers);
}

const Codec *CodecOf(const GstCaps *Caps)
{
    for (const auto &Row : Codecs)
    {
        GstCaps *Wanted = gst_caps_from_string(Row.Caps);
        const bool Is = gst_caps_is_subset(Caps, Wanted);
        gst_caps_unref(Wanted);
        if (Is)
            return &Row;
    }
    return nullptr;
}

} // namespace

std::unique_ptr<Decoder> Decoder::Open(const GstCaps *Caps)
{
    const Codec *Row = CodecOf(Caps);
    const AVCodec *Found = Row ? avcodec_find_decoder(Row->Id) : nullptr;
    if (!Found)
        return nullptr;
    auto Opened = std::make_unique<Decoder>();
    Opened->m_name = Row->Name;
    Opened->m_context.reset(avcodec_alloc_context3(Found));
    AVCodecContext &Context = *Opened->m_context;
    const GstStructure *Structure = gst_caps_get_structure(Caps, 0);
    const Bytes Headers = HeadersOf(Structure, Row->Id);
    if (!Headers.empty())
    {
        Context.extradata = static_cast<uint8_t *>(av_mallocz(Headers.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        std::memcpy(Context.extradata, Headers.data(), Headers.size());
        Context.extradata_size = static_cast<int>(Headers.size());
    }
    gst_structure_get_int(Structure, "rate", &Context.sample_rate);
    if (int Channels = 0; gst_structure_get_int(Structure, "channels", &Channels))
        av_channel_layout_default(&Context.ch_layout, Channels);
    Context.pkt_timebase = {1, static_cast<int>(GST_SECOND)};
    Context.thread_count = 1;
    return avcodec_open2(&Context, Found, nullptr) == 0 ? std::move(Opened) : nullptr;
}

bool Decoder::GoesOn(const GstCaps *Caps, const GstCaps *Others)
{
    const GstStructure *Before = gst_caps_get_structure(Caps, 0), *Now = gst_caps_get_structure(Others, 0);
    const auto IsSame = [&](const char *Field) {
        const GValue *Old = gst_structure_get_value(Before, Field), *New = gst_structure_get_value(Now, Field);
        return Old && New ? gst_value_compare(Old, New) == GST_VALUE_EQUAL : Old == New;
    };
    return CodecOf(Caps) == CodecOf(Others) && IsSame("codec_data") && IsSame("streamheader") && IsSame("stream-format");
}

GstFlowReturn Decoder::Decode(GstBuffer *Unit, gint64 Mark, const Taker &Take)
{
    struct Deleter
    {
        void operator()(AVPacket *Packet) const { av_packet_free(&Packet); }
        void operator()(AVFrame *Frame) const { av_frame_free(&Frame); }
    };
    const std::unique_ptr<AVPacket, Deleter> Packet(av_packet_alloc());
    if (Unit && av_new_packet(Packet.get(), static_cast<int>(gst_buffer_get_size(Unit))) == 0)
    {
        gst_buffer_extract(Unit, 0, Packet->data, static_cast<gsize>(Packet->size));
        const auto Time = [](GstClockTime T) { return GST_CLOCK_TIME_IS_VALID(T) ? static_cast<int64_t>(T) : AV_NOPTS_VALUE; };
        Packet->pts = Time(GST_BUFFER_PTS(Unit));
        Packet->dts = Time(GST_BUFFER_DTS(Unit));
        Packet->duration = GST_BUFFER_DURATION_IS_VALID(Unit) ? static_cast<int64_t>(GST_BUFFER_DURATION(Unit)) : 0;
    }
    m_context->reordered_opaque = Mark;
    avcodec_send_packet(m_context.get(), Unit ? Packet.get() : nullptr);
    const std::unique_ptr<AVFrame, Deleter> Frame(av_frame_alloc());
    GstFlowReturn Flow = GST_FLOW_OK;
    while (Flow == GST_FLOW_OK && avcodec_receive_frame(m_context.get(), Frame.get()) == 0)
        Flow = Take(*Frame);
    if (!Unit)
        Flush(); // or it takes nothing more
    return Flow;
}

} // namespace otherset
