#ifndef HOST_MEDIA_DEMUXER_H
#define HOST_MEDIA_DEMUXER_H

#include "host/sample_stream.h"

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace host {

/// The first audio and the first video stream of a file or URL, demultiplexed with libavformat:
/// MP4 (plain and fragmented), WebM, MPEG transport streams, Ogg. Each has an input of its own, so
/// they are read and sought independently. Media that count from elsewhere, as transport streams
/// do, begin near time 0 here; audio before time 0 is left out. Of an MP4 whose encryption
/// libavformat does not tell right the samples have what its boxes say, or the stream ends with an
/// error.
struct DemuxedMedia {
    std::vector<std::unique_ptr<SampleStream>> streams; ///< empty: see `error`
    std::string error; ///< why it cannot be fed, what to do; without the name, one line
};

/// Opens what the user named: a path or a URL that libavformat knows, but no pipe. A stream of a
/// codec that media sources do not take is left out, unless nothing else is there. Blocks;
/// `cancelled` ends it soon when it becomes true, and must outlive the call.
DemuxedMedia openMedia(const std::string& name, const std::atomic<bool>& cancelled);

/// The same for what makes up one piece of media: audio and video apart, other renditions. All
/// count from one time 0, the start of the earliest. One answer a name; when an input cannot be
/// opened its answer has the error, and no answer has streams.
std::vector<DemuxedMedia> openMedia(const std::vector<std::string>& names,
                                    const std::atomic<bool>& cancelled);

} // namespace host

#endif
