#include "real_library.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <string>

namespace record {

namespace {

std::string& chosen() {
    static std::string& path = *new std::string;
    return path;
}

void* load() {
    const char* const named = std::getenv("UVA_RECORD_LIBRARY");
    const std::string path = !chosen().empty()            ? chosen()
                             : named != nullptr && *named ? named
                                                          : "libuvagstbackend.so";
    void* const handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr)
        std::fprintf(stderr,
                     "uvarecord: cannot load the backend library: %s (name it with "
                     "UVA_RECORD_LIBRARY)\n",
                     dlerror());
    return handle;
}

} // namespace

void RealLibrary::choose(const char* path) {
    chosen() = path != nullptr ? path : "";
}

const RealLibrary& RealLibrary::instance() {
    static const RealLibrary& library = *new RealLibrary;
    return library;
}

RealLibrary::RealLibrary()
    : m_handle(load()), m_request(find<decltype(m_request)>("UVA_RequestBackend")),
      m_release(find<decltype(m_release)>("UVA_ReleaseBackend")),
      m_init(find<decltype(m_init)>("BackendInit")), m_term(find<decltype(m_term)>("BackendTerm")) {
}

template <typename Function>
Function RealLibrary::find(const char* name) const {
    return m_handle != nullptr ? reinterpret_cast<Function>(dlsym(m_handle, name)) : nullptr;
}

UVAMediaBackend* RealLibrary::request(UVABackend::UVABackendType type, UVAClient* client) const {
    return m_request != nullptr ? m_request(type, client) : nullptr;
}

bool RealLibrary::release(UVAMediaBackend* backend) const {
    return m_release != nullptr && m_release(backend);
}

bool RealLibrary::init(GError** error) const {
    return m_handle != nullptr && (m_init == nullptr || m_init(error));
}

void RealLibrary::term() const {
    if (m_term != nullptr)
        m_term();
}

} // namespace record
