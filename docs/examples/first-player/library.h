#ifndef FIRST_PLAYER_LIBRARY_H
#define FIRST_PLAYER_LIBRARY_H

#include "uva/uva_media_backend.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

class UVAClient;

/// The two functions that a backend library exports. Both are null when there is none.
struct Library {
    UVAMediaBackend* (*request)(unsigned int type, UVAClient* client) = nullptr;
    bool (*release)(UVAMediaBackend* backend) = nullptr;
};

/// Loads the library for good: its threads may outlive every player.
inline Library loadLibrary() {
    Library library;
    const char* path = std::getenv("UVA_BACKEND_LIBRARY");
    void* handle = dlopen(path != nullptr ? path : "libuvagstbackend.so", RTLD_NOW);
    if (handle == nullptr) {
        std::fprintf(stderr, "%s; name the library with UVA_BACKEND_LIBRARY\n", dlerror());
        return library;
    }
    library.request =
        reinterpret_cast<decltype(library.request)>(dlsym(handle, "UVA_RequestBackend"));
    library.release =
        reinterpret_cast<decltype(library.release)>(dlsym(handle, "UVA_ReleaseBackend"));
    return library;
}

#endif
