// A host that answers everything inside its event, on whatever thread that comes: plays a file's
// samples, seeks, goes on, and ends. Prints nothing; exit code 0 when all was answered.
//
// Usage: inside_host FILE FROM TO    seeks to TO once the position has passed FROM, seconds

#include "host/backend_library.h"
#include "host/media_demuxer.h"
#include "uva/uva_client.h"
#include "uva/uva_event.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

class Source final : public UVABackend::SourceDescription {
public:
    Source(int id, std::string mime) : m_mime(std::move(mime)) {
        type = MseStreaming;
        sourceId = id;
        mimeType = m_mime.c_str();
        streamType = 1; // GST_APP_STREAM_TYPE_SEEKABLE
    }

private:
    const std::string m_mime;
};

class Host final : public UVAClient {
public:
    explicit Host(std::vector<std::unique_ptr<host::SampleStream>> streams)
        : m_streams(std::move(streams)) {}

    void deliverEvent(UVAEvent* event) override {
        std::unique_ptr<UVAEvent> owned(event);
        if (event->type() == UVAEvent::NeedMSEData)
            feed(static_cast<NeedMSEDataEvent*>(owned.release()));
        else if (event->type() == UVAEvent::CancelDataRequestsAsync)
            seek(static_cast<CancelDataRequestsAsyncEvent&>(*event));
        else if (event->type() == UVAEvent::SeekCompletedEx)
            m_sought = true;
    }

    bool play(UVAMediaBackend& backend, double from, double to) {
        m_backend = &backend;
        std::vector<UVABackend::SourceDescription*> sources;
        for (const auto& stream : m_streams)
            sources.push_back(
                new Source(static_cast<int>(sources.size()) + 1, stream->info().mimeType));
        sources.push_back(nullptr);
        backend.initBackend("", sources.data(), false, false);
        backend.play();
        const bool begun = waitFor([&] { return positionOf(backend) > from; });
        backend.setPosition(to);
        const bool sought = waitFor([&] { return m_sought && positionOf(backend) > to + 0.6; });
        backend.pause();
        return begun && sought;
    }

private:
    void feed(NeedMSEDataEvent* event) {
        auto batch =
            m_streams[event->sourceId - 1]->read(static_cast<std::size_t>(event->samplesRequested));
        const auto status = batch.ended ? UVABackend::EndOfStream : UVABackend::Data;
        event->samples = new UVASample* [batch.samples.size() + 1] {};
        for (std::size_t i = 0; i < batch.samples.size(); ++i)
            event->samples[i] = batch.samples[i].release();
        m_backend->writeData(event, 0, status);
    }
    void seek(const CancelDataRequestsAsyncEvent& event) {
        for (const auto& stream : m_streams)
            stream->seek(event.position);
        m_backend->eventCompleted(&event, true);
    }

    static double positionOf(UVAMediaBackend& backend) { return backend.getPosition().position; }

    template <typename Predicate>
    static bool waitFor(Predicate predicate) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!predicate()) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(100)); // as a page's clock ticks
        }
        return true;
    }

    const std::vector<std::unique_ptr<host::SampleStream>> m_streams;
    UVAMediaBackend* m_backend = nullptr;
    std::atomic<bool> m_sought{false};
};

} // namespace

int main(int argc, char** argv) {
    const std::atomic<bool> cancelled{false};
    auto media = host::openMedia(argc == 4 ? argv[1] : "", cancelled);
    const auto loaded = host::BackendLibrary::load("");
    const auto error = loaded.error + media.error;
    if (!error.empty()) {
        std::fprintf(stderr, "inside_host: %s\n", error.c_str());
        return 1;
    }
    Host client(std::move(media.streams));
    auto* const backend = loaded.library->request(UVABackend::VideoElement, &client);
    const bool done =
        backend != nullptr && client.play(*backend, std::atof(argv[2]), std::atof(argv[3]));
    loaded.library->release(backend);
    return done ? 0 : 1;
}
