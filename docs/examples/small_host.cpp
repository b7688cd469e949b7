// A whole host: plays a URL and prints the events. Usage: small_host URL

#include "uva/uva_client.h"
#include "uva/uva_event.h"
#include "uva/uva_media_backend.h"

#include <atomic>
#include <cstdio>
#include <dlfcn.h>
#include <future>
#include <memory>

class Client final : public UVAClient {
public:
    void deliverEvent(UVAEvent* delivered) override { // on whatever thread raises it
        const std::unique_ptr<UVAEvent> event(delivered);
        std::printf("event %d\n", event->type());
        if (event->type() == UVAEvent::BackendResourceRequestAsync)
            backend->eventCompleted(static_cast<UVAAsyncEvent*>(delivered), true); // granted
        const bool failed = event->type() == UVAEvent::DecodeError ||
                            event->type() == UVAEvent::BufferingNetworkError;
        if ((failed || event->type() == UVAEvent::PlaybackFinished) && !told.exchange(true))
            over.set_value(event->type());
    }
    UVAMediaBackend* backend = nullptr;
    std::promise<int> over; // which event was the end

private:
    std::atomic<bool> told{false};
};

static int fail(const char* why) {
    std::fprintf(stderr, "small_host: %s\n", why);
    return 1;
}

int main(int argc, char** argv) {
    if (argc != 2)
        return fail("name what to play: small_host URL");
    void* const library = dlopen("libuvagstbackend.so", RTLD_NOW); // never closed: it has threads
    if (library == nullptr)
        return fail(dlerror());
    const auto request = reinterpret_cast<UVAMediaBackend* (*)(unsigned int, UVAClient*)>(
        dlsym(library, "UVA_RequestBackend"));
    const auto release =
        reinterpret_cast<bool (*)(UVAMediaBackend*)>(dlsym(library, "UVA_ReleaseBackend"));

    Client client;
    client.backend = request(UVABackend::VideoElement, &client);
    if (client.backend == nullptr)
        return fail("the library gave no backend; its own message says why");
    auto* const source = new UVABackend::SourceDescription; // becomes the backend's
    source->type = UVABackend::SourceDescription::BackendStreaming;
    source->url = argv[1];
    UVABackend::SourceDescription* sources[] = {source, nullptr};
    if (client.backend->initBackend("", sources, false, false) != UVABackend::Success)
        return fail("the backend does not take the URL");
    client.backend->play();
    const int last = client.over.get_future().get(); // the user ends what never gets anywhere
    release(client.backend);
    if (last == UVAEvent::BufferingNetworkError)
        return fail("the URL cannot be fetched");
    if (last == UVAEvent::DecodeError)
        return fail("no decoder was granted; without a main system set NOX_GST_STANDALONE=1");
    return 0;
}
