#include "host/backend_library.h"

#include <cstdlib>
#include <dlfcn.h>

namespace host {

namespace {

constexpr const char* defaultLibrary = "libuvagstbackend.so";
constexpr const char* libraryVariable = "UVA_BACKEND_LIBRARY";
constexpr const char* recordVariable = "UVA_RECORD";
constexpr const char* defaultRecorder = "libuvarecord.so";
constexpr const char* recorderVariable = "UVA_RECORDER";

std::string fromEnvironment(const char* variable, const char* otherwise) {
    const char* const value = std::getenv(variable);
    return value != nullptr && *value != '\0' ? value : otherwise;
}

std::string choosePath(const std::string& path) {
    return path.empty() ? fromEnvironment(libraryVariable, defaultLibrary) : path;
}

std::string lastLinkerError() {
    const char* text = dlerror();
    return text != nullptr ? text : "unknown error of the dynamic linker";
}

} // namespace

BackendLibrary::Loaded BackendLibrary::load(const std::string& path) {
    auto loaded = open(choosePath(path));
    if (loaded.library == nullptr || fromEnvironment(recordVariable, "").empty())
        return loaded;
    return openRecorder(choosePath(path));
}

/// The recorder loads the library that it stands before, which is known to be one.
BackendLibrary::Loaded BackendLibrary::openRecorder(const std::string& library) {
    const std::string name = fromEnvironment(recorderVariable, defaultRecorder);
    void* const handle = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    using Choose = void (*)(const char* path);
    const auto choose =
        handle != nullptr ? reinterpret_cast<Choose>(dlsym(handle, "UVA_RecordLibrary")) : nullptr;
    if (choose == nullptr)
        return {nullptr, "cannot load the recorder that " + std::string(recordVariable) +
                             " asks for: " + lastLinkerError() + " (name it with " +
                             recorderVariable + ")"};
    choose(library.c_str());
    return open(name);
}

BackendLibrary::Loaded BackendLibrary::open(const std::string& name) {
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
