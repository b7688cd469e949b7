#ifndef NOXELEMENTS_DECODE_CHAIN_H
#define NOXELEMENTS_DECODE_CHAIN_H

#include "media_formats.h"

#include <vector>

namespace noxelements {

/// The parser and the decoder of one format, inside a bin and in front of its output.
/// Bound to the thread that holds the sink pad's stream lock, or to the state change once the
/// pads are inactive.
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
    /// Lets the decoder hand on what it still holds. The end of stream that this sends through has
    /// to be stopped at the output.
    void drain();
    /// Takes the chain out of the bin and lets the ghost pad feed the output again.
    void remove(GstGhostPad* pad, GstElement* output);

private:
    bool add(GstPtr<GstElement> element);

    GstBin* const m_bin;
    const MediaFormat* m_format = nullptr;
    std::vector<GstElement*> m_elements; // in the order of the data; the bin owns them
};

} // namespace noxelements

#endif
