// Plays a file to its end: play FILE

#include "library.h"
#include "mailbox.h"

#include <string>

namespace {

/// The media. Handed to the backend, which deletes it: the text lives in it.
class File final : public UVABackend::SourceDescription {
public:
    explicit File(const std::string& path) : m_url("file://" + path) {
        type = BackendStreaming; // the backend reads it by itself
        url = m_url.c_str();
    }

private:
    const std::string m_url;
};

/// Empty when the end was shown, else what went wrong.
std::string play(UVAMediaBackend& backend, Mailbox& mailbox, const char* path) {
    UVABackend::SourceDescription* sources[] = {new File(path), nullptr};
    if (backend.initBackend("", sources, false, false) != UVABackend::Success)
        return "the backend does not take the file";
    backend.play();
    for (;;) {
        const auto event = mailbox.wait();
        switch (event->type()) {
        case UVAEvent::BackendResourceRequestAsync: // a sink waits until we grant the decoder
            backend.eventCompleted(static_cast<const UVAAsyncEvent*>(event.get()), true);
            break;
        case UVAEvent::NewMetadata: {
            const auto& media = static_cast<const NewMetadataEvent&>(*event);
            std::printf("%d x %d, %.1f s\n", media.width, media.height, media.duration);
            break;
        }
        case UVAEvent::PlaybackFinished: {
            double position = 0;
            backend.getPosition(position);
            std::printf("ended at %.1f s\n", position);
            return "";
        }
        case UVAEvent::DecodeError:
            return "no decoder was granted";
        case UVAEvent::BufferingNetworkError:
            return "the file cannot be read";
        default:
            break;
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2 || argv[1][0] != '/') {
        std::fputs("usage: play FILE, with its whole path\n", stderr);
        return 2;
    }
    const Library library = loadLibrary();
    if (library.request == nullptr || library.release == nullptr)
        return 1;
    Mailbox mailbox;
    UVAMediaBackend* backend = library.request(UVABackend::VideoElement, &mailbox);
    if (backend == nullptr)
        return 1; // the library has said why
    const std::string error = play(*backend, mailbox, argv[1]);
    library.release(backend);
    if (!error.empty())
        std::fprintf(stderr, "play: %s\n", error.c_str());
    return error.empty() ? 0 : 1;
}
