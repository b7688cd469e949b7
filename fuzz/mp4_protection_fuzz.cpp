// Any bytes as the body of a 'moov': looking for what libavformat passes over ends, and gives only
// what makes sense. Input: the body.

#include "fuzz_target.h"
#include "mp4_protection.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const host::BoxReader moov(data, size, host::fourLetters("moov"), 0, 0);
    for (const auto& [id, track] : host::readMp4Protection(moov)) {
        if (!track.fault.empty() || !track.encryption.encrypted)
            continue;
        require(track.encryption.scheme != host::Protection::Scheme::None);
        require(track.encryption.ivSize > 0 || track.encryption.constantIv);
    }
    return 0;
}
