// Seeks to the middle of a file, takes a picture there and plays on: seek FILE

#include "library.h"
#include "mailbox.h"

#include <string>
#include <utility>
#include <vector>

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

/// Writes the picture on screen as a PPM file.
bool savePicture(UVAMediaBackend& backend, int width, int height, const char* path) {
    std::vector<unsigned char> rgba(static_cast<std::size_t>(width) * height * 4);
    if (backend.getVideoFrame(rgba.data(), static_cast<unsigned int>(rgba.size())) !=
        UVABackend::Success)
        return false;
    std::FILE* file = std::fopen(path, "wb");
    if (file == nullptr)
        return false;
    std::fprintf(file, "P6\n%d %d\n255\n", width, height);
    for (std::size_t i = 0; i < rgba.size(); i += 4)
        std::fwrite(&rgba[i], 1, 3, file);
    return std::fclose(file) == 0;
}

/// Empty when the end was shown, else what went wrong.
std::string play(UVAMediaBackend& backend, Mailbox& mailbox, const char* path) {
    UVABackend::SourceDescription* sources[] = {new File(path), nullptr};
    if (backend.initBackend("", sources, false, false) != UVABackend::Success)
        return "the backend does not take the file";
    backend.play();
    bool sought = false;
    int width = 0;
    int height = 0;
    for (;;) {
        const auto event = mailbox.wait();
        switch (event->type()) {
        case UVAEvent::BackendResourceRequestAsync: // a sink waits until we grant the decoder
        case UVAEvent::CancelDataRequestsAsync:     // the seek is made in this call
            backend.eventCompleted(static_cast<const UVAAsyncEvent*>(event.get()), true);
            break;
        case UVAEvent::NewMetadata: {
            const auto& media = static_cast<const NewMetadataEvent&>(*event);
            std::printf("%d x %d, %.1f s\n", media.width, media.height, media.duration);
            width = media.width;
            height = media.height;
            if (!std::exchange(sought, true))
                backend.setPosition(media.duration / 2);
            break;
        }
        case UVAEvent::SeekCompletedEx:
            backend.startCapture(width, height);
            break;
        case UVAEvent::VideoFrameAvailable: {
            backend.stopCapture();
            double position = 0;
            backend.getPosition(position);
            if (!savePicture(backend, width, height, "picture.ppm"))
                return "the picture cannot be written to picture.ppm";
            std::printf("picture.ppm, taken at %.1f s\n", position);
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
        std::fputs("usage: seek FILE, with its whole path\n", stderr);
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
        std::fprintf(stderr, "seek: %s\n", error.c_str());
    return error.empty() ? 0 : 1;
}
