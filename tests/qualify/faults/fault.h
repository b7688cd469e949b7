// Included before everything else in a library that has all faults of this folder: which one is on.
#ifndef QUALIFY_FAULT_H
#define QUALIFY_FAULT_H

#include <cstdlib>
#include <cstring>
#include <unistd.h>

/// Whether UVA_FAULT names this one. Read once, so that threads need no lock.
inline bool faultIs(const char* name) noexcept {
    static const char* const chosen = std::getenv("UVA_FAULT");
    return chosen != nullptr && std::strcmp(chosen, name) == 0;
}

#endif
