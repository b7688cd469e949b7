#ifndef UVA_HOST_MEDIA_SOURCE_H
#define UVA_HOST_MEDIA_SOURCE_H

#include "host/media_source.h"
#include "options.h"

#include <memory>

namespace uvahost {

/// What the command line describes: audio and video from the files named, other renditions from
/// their times on, encrypted on the way if asked for.
host::MediaSource makeMediaSource(const Options& options,
                                  std::shared_ptr<const host::ClearKey> keys);

} // namespace uvahost

#endif
