// Asks a backend what it can play.

#include "library.h"
#include "uva/uva_client.h"
#include "uva/uva_event.h"

namespace {

/// Whom the backend talks to. An event belongs to whom it is delivered to.
class Client final : public UVAClient {
public:
    void deliverEvent(UVAEvent* event) override { delete event; }
};

} // namespace

int main() {
    const Library library = loadLibrary();
    if (library.request == nullptr || library.release == nullptr)
        return 1;
    Client client;
    UVAMediaBackend* backend = library.request(UVABackend::VideoElement, &client);
    if (backend == nullptr)
        return 1; // the library has said why

    UVABackend::ContentDescription mp4;
    mp4.type = "video/mp4";
    mp4.codecs = {"avc1.64001f", "mp4a.40.2"};
    std::printf("H.264 and AAC in MP4: %s\n", backend->canPlayType(mp4) ? "yes" : "no");
    mp4.width = "100000";
    std::printf("the same, 100000 pixels wide: %s\n", backend->canPlayType(mp4) ? "yes" : "no");

    library.release(backend);
}
