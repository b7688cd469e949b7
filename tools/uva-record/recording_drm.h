#ifndef UVA_RECORD_RECORDING_DRM_H
#define UVA_RECORD_RECORDING_DRM_H

namespace record {

class Recorder;

/// From now on backends that look for the content protection that the host offers under this
/// identifier find one that notes what they ask it, and asks it. What is decrypted is not noted.
/// It stays in its place until the host offers another. Null and unknown identifiers do not matter.
/// Thread-safe.
void recordDrm(Recorder& recorder, const char* keySystemId);

} // namespace record

#endif
