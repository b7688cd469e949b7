#ifndef HOST_SUBSAMPLE_MAP_H
#define HOST_SUBSAMPLE_MAP_H

#include "host/sample.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace host {

/// Which bytes of a clear sample to encrypt, and which stay clear for parsers, the way packagers
/// choose them. Covers the sample; where nothing is worth encrypting it is one entry of clear bytes
/// only. Empty: encrypt the sample as a whole. Takes any bytes: what is no NAL unit stays clear.
/// Below 4 GiB. Reentrant.
std::vector<UVASample::Subsample> subsampleMap(const UVAStreamConfig& config,
                                               const std::uint8_t* payload, std::size_t size,
                                               Protection::Scheme scheme);

} // namespace host

#endif
