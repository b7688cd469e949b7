// Any bytes as an MP4: looking at its boxes ends, what is told of a place in it can be asked for
// anywhere, and covering it step by step tells the same as at once. Input: the file.

#include "fuzz_target.h"
#include "mp4_scan.h"

#include <algorithm>
#include <limits>
#include <memory>

namespace {

host::Mp4Scan scanOf(const uint8_t* data, size_t size) {
    return host::Mp4Scan([=](std::uint64_t at, std::uint8_t* bytes, std::size_t wanted) {
        const std::size_t count =
            at < size ? std::min(wanted, size - static_cast<std::size_t>(at)) : 0;
        if (count > 0)
            std::copy_n(data + at, count, bytes);
        return count;
    });
}

bool isSame(const std::shared_ptr<const host::TrackProtection>& left,
            const std::shared_ptr<const host::TrackProtection>& right) {
    if (left == nullptr || right == nullptr)
        return left == right;
    return left->encrypted == right->encrypted && left->keyId == right->keyId &&
           left->constantIv == right->constantIv && left->fault == right->fault;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto whole = scanOf(data, size);
    whole.coverTo(std::numeric_limits<std::uint64_t>::max());
    auto steps = scanOf(data, size);
    for (size_t at = 0; at <= size; at += 1 + size / 50)
        steps.coverTo(at);
    steps.coverTo(std::numeric_limits<std::uint64_t>::max());
    require(whole.beginnings() == steps.beginnings());
    for (std::uint32_t track = 0; track < 10; ++track) {
        require(whole.endOf(track) == steps.endOf(track));
        for (size_t at = 0; at <= size; at += 1 + size / 50)
            require(isSame(whole.protectionAt(at, track), steps.protectionAt(at, track)));
    }
    return 0;
}
