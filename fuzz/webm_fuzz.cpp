// Any bytes as segments of WebM.

#include "segment_fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return fuzz::tryStream("video/webm", data, size);
}
