#ifndef NOXELEMENTS_DECODE_CHAIN_H
#define NOXELEMENTS_DECODE_CHAIN_H

#include "media_formats.h"

#include <vector>

namespace noxelements {

/// The elementary-stream buffer, the parser and the decoder of one format, inside a bin and in
/// front of its output. The buffer holds about a second, as a set's decoders do, so that data may
/// come that much late; what is behind it runs on a thread of its own.
///
/// Bound to the thread that holds the sink pad's stream lock, or to the state change once the
/// pads are inactive; what is const also to the chain's own thread.
class DecodeChain {
public:
    explicit DecodeChain(GstBin* bin) : m_bin(bin) {}

    /// The format that the chain was built for; null when there is none.
    const MediaFormat* format() const { return m_format; }
    /// What the decoder is fed with, parsed; null before that and when there is no decoder.
    GstPtr<GstCaps> codedCaps() const;

    /// Builds the chain between the ghost pad and the output and brings it to the bin's state.
    /// False when a part is not installed or refuses; the error is on the bus.
    bool build(const MediaFormat& format, GstCaps* caps, GstGhostPad* pad, GstElement* output);
    /// Lets the chain hand on what it still holds. False when there is nothing to wait for; else
    /// the end of stream that this sends through comes to the output later, and has to be stopped
    /// there.
    bool drain();
    /// Takes the chain out of the bin and lets the ghost pad feed the output again. The chain is
    /// drained, or the output lets go of its data.
    void remove(GstGhostPad* pad, GstElement* output);

private:
    bool add(GstPtr<GstElement> element);

    GstBin* const m_bin;
    const MediaFormat* m_format = nullptr;
    std::vector<GstElement*> m_elements; // in the order of the data; the bin owns them
};

} // namespace noxelements

#endif
