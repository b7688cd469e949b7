// Hosts that do what few hosts do. Prints errors alone; exit code 0 when all was done and answered.
//
// Usage: odd_host CASE FILE    the cases are in the table at the end

#include "host/backend_library.h"
#include "host/clear_key.h"
#include "host/media_demuxer.h"
#include "host/media_source.h"
#include "host/media_uri.h"
#include "uva/uva_client.h"
#include "uva/uva_event.h"
#include "uva/uva_key_system_config.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Streams = std::vector<std::unique_ptr<host::SampleStream>>;

const std::atomic<bool> never{false};

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

/// Answers requests for samples, and the seek of what it feeds, inside their events on whatever
/// thread they come; all else on its own.
class Host final : public UVAClient {
public:
    /// Answers requests for a decoder so late.
    Host(const host::BackendLibrary& library, milliseconds lateness)
        : m_library(library), m_lateness(lateness),
          m_backend(library.request(UVABackend::VideoElement, this)) {}
    ~Host() override { m_library.release(m_backend); }

    UVAMediaBackend& backend() { return *m_backend; }

    void openSamples(Streams streams) {
        m_streams = std::move(streams);
        std::vector<UVABackend::SourceDescription*> sources;
        for (const auto& stream : m_streams)
            sources.push_back(
                new Source(static_cast<int>(sources.size()) + 1, stream->info().mimeType));
        sources.push_back(nullptr);
        m_backend->initBackend("", sources.data(), false, false);
    }
    void openUrl(const std::string& file) {
        const auto url = host::fileUri(file);
        auto* const source = new UVABackend::SourceDescription;
        source->type = UVABackend::SourceDescription::BackendStreaming;
        source->url = url.c_str();
        UVABackend::SourceDescription* sources[] = {source, nullptr};
        m_backend->initBackend("", sources, false, false);
    }

    /// All samples and the end, of which nobody has asked for any.
    void writeAll() {
        for (unsigned int id = 1; id <= m_streams.size(); ++id)
            for (const int count : {10000, 1})
                feed(new NeedMSEDataEvent(id, count));
    }

    bool isAskedForDecoder() {
        const std::lock_guard lock(m_mutex);
        return !m_questions.empty();
    }
    bool hasSought() const { return m_hasSought; }
    bool hasEnded() const { return m_hasEnded; }
    double position() { return m_backend->getPosition().position; }

    /// The host's thread, as a page's clock ticks, until the predicate holds or far too long.
    template <typename Predicate>
    bool runUntil(Predicate predicate) {
        const auto deadline = Clock::now() + std::chrono::seconds(20);
        for (; Clock::now() < deadline; std::this_thread::sleep_for(milliseconds(100))) {
            answerWhatIsDue();
            position();
            if (predicate())
                return true;
        }
        return false;
    }

private:
    struct Question {
        Clock::time_point due;
        std::unique_ptr<UVAAsyncEvent> event;
    };

    void deliverEvent(UVAEvent* event) override {
        std::unique_ptr<UVAEvent> owned(event);
        switch (event->type()) {
        case UVAEvent::NeedMSEData:
            return feed(static_cast<NeedMSEDataEvent*>(owned.release()));
        case UVAEvent::CancelDataRequestsAsync:
            if (!m_streams.empty())
                return seek(static_cast<CancelDataRequestsAsyncEvent&>(*event));
            return keep(static_cast<UVAAsyncEvent*>(owned.release()), milliseconds(0));
        case UVAEvent::BackendResourceRequestAsync:
            return keep(static_cast<UVAAsyncEvent*>(owned.release()), m_lateness);
        case UVAEvent::SeekCompletedEx:
            m_hasSought = true;
            return;
        case UVAEvent::PlaybackFinished:
            m_hasEnded = true;
            return;
        default:
            return;
        }
    }

    void feed(NeedMSEDataEvent* event) {
        host::SampleStream::Batch batch;
        {
            const std::lock_guard lock(m_mutex);
            batch = m_streams[event->sourceId - 1]->read(
                static_cast<std::size_t>(event->samplesRequested));
        }
        const auto status = batch.samples.empty() ? UVABackend::EndOfStream : UVABackend::Data;
        event->samples = new UVASample* [batch.samples.size() + 1] {};
        for (std::size_t i = 0; i < batch.samples.size(); ++i)
            event->samples[i] = batch.samples[i].release();
        m_backend->writeData(event, 0, status);
    }
    void seek(const CancelDataRequestsAsyncEvent& event) {
        {
            const std::lock_guard lock(m_mutex);
            for (const auto& stream : m_streams)
                stream->seek(event.position);
        }
        m_backend->eventCompleted(&event, true);
        m_backend->eventCompleted(&event, true); // an answer too many
    }

    void keep(UVAAsyncEvent* event, milliseconds lateness) {
        const std::lock_guard lock(m_mutex);
        m_questions.push_back({Clock::now() + lateness, std::unique_ptr<UVAAsyncEvent>(event)});
    }
    void answerWhatIsDue() {
        std::deque<Question> due;
        {
            const std::lock_guard lock(m_mutex);
            const auto later = std::stable_partition(
                m_questions.begin(), m_questions.end(),
                [](const Question& question) { return question.due <= Clock::now(); });
            std::move(m_questions.begin(), later, std::back_inserter(due));
            m_questions.erase(m_questions.begin(), later);
        }
        for (const auto& question : due)
            m_backend->eventCompleted(question.event.get(), true);
    }

    const host::BackendLibrary& m_library;
    const milliseconds m_lateness;
    Streams m_streams;
    std::atomic<bool> m_hasSought{false};
    std::atomic<bool> m_hasEnded{false};
    std::mutex m_mutex; // guards the questions, and the streams once they are open
    std::deque<Question> m_questions;
    UVAMediaBackend* const m_backend; // last: it may deliver at once
};

Streams streamsOf(const std::string& file) {
    auto media = host::openMedia(file, never);
    if (!media.error.empty()) {
        std::fprintf(stderr, "odd_host: %s: %s\n", file.c_str(), media.error.c_str());
        std::exit(1);
    }
    return std::move(media.streams);
}

bool seeks(const host::BackendLibrary& library, const std::string& file, double from, double to) {
    Host client(library, milliseconds(0));
    client.openSamples(streamsOf(file));
    client.backend().play();
    const bool begun = client.runUntil([&] { return client.position() > from; });
    client.backend().setPosition(to);
    const bool sought =
        client.runUntil([&] { return client.hasSought() && client.position() > to + 0.6; });
    client.backend().pause();
    return begun && sought;
}

bool answersInside(const host::BackendLibrary& library, const std::string& file) {
    return seeks(library, file, 0.2, 5);
}

/// A short seek, of which the second answer is to be looked at.
bool answersTwice(const host::BackendLibrary& library, const std::string& file) {
    return seeks(library, file, 0.1, 0.3);
}

bool writesUnasked(const host::BackendLibrary& library, const std::string& file) {
    Host client(library, milliseconds(0));
    client.openSamples(streamsOf(file));
    client.writeAll();
    client.backend().play();
    return client.runUntil([&] { return client.hasEnded(); });
}

/// Before the duration is known, and while it plays.
bool seeksToInfinity(const host::BackendLibrary& library, const std::string& file) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    Host client(library, milliseconds(0));
    client.openUrl(file);
    const bool early = client.backend().setPosition(infinity) == 0;
    client.backend().play();
    const bool begun = client.runUntil([&] { return client.position() > 0.2; });
    const bool late = client.backend().setPosition(infinity) == 0;
    return client.runUntil([&] { return client.hasEnded(); }) && early && begun && late;
}

bool seeksBeforeTheDecoder(const host::BackendLibrary& library, const std::string& file) {
    Host client(library, milliseconds(500));
    client.openUrl(file);
    client.backend().play();
    const bool asked = client.runUntil([&] { return client.isAskedForDecoder(); });
    client.backend().setPosition(1.0);
    return client.runUntil([&] { return client.hasEnded(); }) && asked;
}

/// The first second has a key that nobody has.
bool lacksAKey(const host::BackendLibrary& library, const std::string& file) {
    using host::protect;
    constexpr auto scheme = host::Protection::Scheme::Cenc;
    constexpr host::KeyBytes missingId{0xff};
    constexpr double change = 1.0;
    host::KeyPair known;
    host::parseKey("00112233445566778899aabbccddeeff:000102030405060708090a0b0c0d0e0f", known);
    static host::ClearKey keys(host::ClearKey::Interface::PerRange);
    keys.addKey(known);
    UVA_OfferDRMBackend(host::clearKeySystem, &keys);
    auto streams = streamsOf(file);
    auto again = streamsOf(file);
    for (std::size_t i = 0; i < streams.size(); ++i)
        streams[i] = host::switchAt(protect(std::move(streams[i]), scheme, {missingId, {}}), change,
                                    protect(std::move(again[i]), scheme, known));
    Host client(library, milliseconds(0));
    UVAKeySystemConfig config;
    config.keySystemId = host::clearKeySystem;
    client.backend().setKeySystem(config);
    client.openSamples(std::move(streams));
    client.backend().play();
    return client.runUntil([&] { return client.hasEnded(); });
}

constexpr struct {
    const char* name;
    bool (*play)(const host::BackendLibrary& library, const std::string& file);
} cases[] = {
    {"answered-inside", answersInside}, {"unasked-samples", writesUnasked},
    {"endless-seek", seeksToInfinity},  {"seek-before-decoder", seeksBeforeTheDecoder},
    {"missing-key", lacksAKey},         {"answered-twice", answersTwice},
};

} // namespace

int main(int argc, char** argv) {
    const std::string name = argc == 3 ? argv[1] : "";
    const auto* const found = std::find_if(std::begin(cases), std::end(cases),
                                           [&](const auto& row) { return row.name == name; });
    if (found == std::end(cases)) {
        std::fprintf(stderr, "usage: odd_host CASE FILE, CASE one of:\n");
        for (const auto& row : cases)
            std::fprintf(stderr, "  %s\n", row.name);
        return 2;
    }
    const auto loaded = host::BackendLibrary::load("");
    if (loaded.library == nullptr) {
        std::fprintf(stderr, "odd_host: %s\n", loaded.error.c_str());
        return 1;
    }
    return found->play(*loaded.library, argv[2]) ? 0 : 1;
}
