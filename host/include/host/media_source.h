#ifndef HOST_MEDIA_SOURCE_H
#define HOST_MEDIA_SOURCE_H

#include "host/clear_key.h"
#include "host/media_demuxer.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace host {

/// What a media element plays when the host feeds it: samples in place of a URL.
struct MediaSource {
    /// Opens the streams that are there from the beginning, at most one of a kind. Called once, on
    /// a thread of the element's own on which such streams are read too; may block until
    /// `cancelled` becomes true. Empty: all streams come with MediaElement::attach().
    std::function<DemuxedMedia(const std::atomic<bool>& cancelled)> open;

    double start = 0;    ///< where playback begins, seconds; 0 for what is no time
    double duration = 0; ///< of the whole, seconds; 0 or infinite: as the streams tell

    /// Decrypts, under clearKeySystem, what is encrypted; must be on offer to the backends
    /// (UVA_OfferDRMBackend). Null: encrypted samples cannot be fed. Samples whose key is not there
    /// are held back, see Observer::onKeyNeeded().
    std::shared_ptr<const ClearKey> keys;
    std::uint64_t keySession = 0; ///< whose keys they are, see ClearKey

    /// The host name of what is fetched over a network; empty: all are files.
    std::string server;
};

/// One rendition up to a time, seconds, another one from there: from the first of its samples at or
/// behind it with which decoding can start. They must be of one kind and codec.
std::unique_ptr<SampleStream> switchAt(std::unique_ptr<SampleStream> first, double seconds,
                                       std::unique_ptr<SampleStream> next);

} // namespace host

#endif
