#ifndef HOST_MEDIA_SOURCE_H
#define HOST_MEDIA_SOURCE_H

#include "host/clear_key.h"
#include "host/media_demuxer.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace host {

/// What a media element plays when the host feeds it: samples in place of a URL.
struct MediaSource {
    /// Opens the streams, at most one of a kind. Called once, on a thread of the element's own on
    /// which the streams are read too; may block until `cancelled` becomes true.
    std::function<DemuxedMedia(const std::atomic<bool>& cancelled)> open;

    /// Decrypts, under clearKeySystem, what is encrypted; must be on offer to the backends
    /// (UVA_OfferDRMBackend). Null: encrypted samples cannot be fed.
    std::shared_ptr<const ClearKey> keys;

    /// Samples are held back until the key with this id is there, see
    /// MediaElement::resumeFeeding(). Called as an Observer is; may be empty.
    std::function<void(const KeyBytes& id)> keyNeeded;

    /// The host name of what is fetched over a network; empty: all are files.
    std::string server;
};

/// One rendition up to a time, seconds, another one from there: from the first of its samples at or
/// behind it with which decoding can start. They must be of one kind and codec.
std::unique_ptr<SampleStream> switchAt(std::unique_ptr<SampleStream> first, double seconds,
                                       std::unique_ptr<SampleStream> next);

} // namespace host

#endif
