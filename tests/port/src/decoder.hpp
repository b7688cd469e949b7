#pragma once
#include <functional>
#include <memory>

#include <gst/gst.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace otherset
{

/** \brief One stream's decoder. Used by one thread at a time. */
class Decoder
{
  public:
    /** \brief Opens the decoder that some caps want; null when there is none. */
    static std::unique_ptr<Decoder> Open(const GstCaps *Caps);

    /** \brief Whether what was opened for some caps can go on with others: parsers add what they learn of a stream. */
    static bool GoesOn(const GstCaps *Caps, const GstCaps *Others);

    using Taker = std::function<GstFlowReturn(const AVFrame &)>;

    /**
     * \brief Decodes one access unit and hands out what is complete, in the order of presentation.
     * \param Unit null: there is no more, hand out the rest
     * \param Mark what comes of this unit has it as `reordered_opaque`
     * \return what Take has answered last; a damaged unit is left out
     */
    GstFlowReturn Decode(GstBuffer *Unit, gint64 Mark, const Taker &Take);

    /** \brief Forgets what it was given. */
    void Flush() { avcodec_flush_buffers(m_context.get()); }

    /** \brief What the set calls the codec. */
    const char *Name() const { return m_name; }

  private:
    struct Closer
    {
        void operator()(AVCodecContext *Context) const { avcodec_free_context(&Context); }
    };

    const char *m_name{};
    std::unique_ptr<AVCodecContext, Closer> m_context;
};

} // namespace otherset
