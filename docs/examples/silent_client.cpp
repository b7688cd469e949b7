// A client that answers nothing: it asks for a URL to be played, and whatever it is asked itself,
// it keeps to itself. Usage: silent_client FILE|URL; ends with its standard input.

#include "host/backend_library.h"
#include "host/media_uri.h"
#include "uva/uva_client.h"
#include "uva/uva_event.h"

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

class SilentClient final : public UVAClient {
public:
    void deliverEvent(UVAEvent* event) override {
        const std::lock_guard lock(m_mutex);
        m_events.emplace_back(event);
    }

private:
    std::mutex m_mutex;
    std::vector<std::unique_ptr<UVAEvent>> m_events;
};

class Url final : public UVABackend::SourceDescription {
public:
    explicit Url(std::string address) : m_address(std::move(address)) {
        type = BackendStreaming;
        url = m_address.c_str();
    }

private:
    const std::string m_address;
};

int fail(const std::string& why) {
    std::fprintf(stderr, "silent_client: %s\n", why.c_str());
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    const auto media = host::toMediaUri(argc == 2 ? argv[1] : "");
    if (!media.error.empty())
        return fail(media.error + "; write silent_client FILE|URL");
    const auto loaded = host::BackendLibrary::load("");
    if (loaded.library == nullptr)
        return fail(loaded.error);
    SilentClient client;
    auto* const backend = loaded.library->request(UVABackend::VideoElement, &client);
    if (backend == nullptr)
        return fail("the library gave no backend");
    UVABackend::SourceDescription* sources[] = {new Url(media.uri), nullptr};
    if (backend->initBackend("", sources, false, false) != UVABackend::Success)
        return fail("the backend does not take " + media.uri);
    backend->play();
    while (std::getchar() != EOF) {
    }
    loaded.library->release(backend);
}
