// Any bytes as segments of ISO BMFF.

#include "segment_fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return fuzz::tryStream("video/mp4", data, size);
}
