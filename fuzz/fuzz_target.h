#ifndef FUZZ_TARGET_H
#define FUZZ_TARGET_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

/// Aborts, which is what a fuzzer finds.
inline void require(bool holds) {
    if (!holds)
        abort();
}

} // namespace fuzz

using fuzz::require;

#endif
