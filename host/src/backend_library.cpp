#include "host/backend_library.h"

#include <cstdlib>
#include <dlfcn.h>

namespace host {

namespace {

constexpr const char* defaultLibrary = "libuvagstbackend.so";
constexpr const char* libraryVariable = "UVA_BACKEND_LIBRARY";

std::string choosePath(const std::string& path) {
    if (!path.empty())
        return path;
    const char* fromEnvironment = std::getenv(libraryVariable);
    return fromEnvironment != nullptr && *fromEnvironment != '\0' ? fromEnvironment
                                                                  : defaultLibrary;
}

std::string lastLinkerError() {
    const char* text = dlerror();
    return text != nullptr ? text : "unknown error of the dynamic linker";
}

} // namespace

BackendLibrary::Loaded BackendLibrary::load(const std::string& path) {
    const std::string name = choosePath(path);
    void* handle = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr)
        return {nullptr, "cannot load the backend library: " + lastLinkerError() +
                             " (name it with --backend or " + libraryVariable +
                             ", or add its folder to LD_LIBRARY_PATH)"};

    for (const char* symbol : {"UVA_RequestBackend", "UVA_ReleaseBackend"}) {
        if (dlsym(handle, symbol) != nullptr)
            continue;
        dlclose(handle);
        return {nullptr, "'" + name + "' is no backend library: it does not export " + symbol +
                             " (name another with --backend or " + libraryVariable + ")"};
    }
    const auto requestBackend = reinterpret_cast<Request>(dlsym(handle, "UVA_RequestBackend"));
    const auto releaseBackend = reinterpret_cast<Release>(dlsym(handle, "UVA_ReleaseBackend"));
    return {std::shared_ptr<BackendLibrary>(new BackendLibrary(requestBackend, releaseBackend)),
            {}};
}

UVAMediaBackend* BackendLibrary::request(UVABackend::UVABackendType type, UVAClient* client) const {
    return m_request(type, client);
}

bool BackendLibrary::release(UVAMediaBackend* backend) const {
    return m_release(backend);
}

} // namespace host
