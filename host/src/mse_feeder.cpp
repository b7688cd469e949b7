#include "mse_feeder.h"

#include "locks/mutex.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace host {

namespace {

constexpr int seekableStream = 1; // GST_APP_STREAM_TYPE_SEEKABLE

/// The source as the backend takes it: it owns this, and the text lives in it.
class FedSource final : public UVABackend::SourceDescription {
public:
    FedSource(unsigned int id, std::string mime, double duration) : m_mime(std::move(mime)) {
        type = MseStreaming;
        sourceId = static_cast<int>(id);
        mimeType = m_mime.c_str();
        streamType = seekableStream;
        durationMs =
            duration > 0 ? static_cast<unsigned long long>(std::llround(duration * 1000)) : 0;
    }

private:
    const std::string m_mime;
};

KeyBytes keyIdOf(const Sample& sample) {
    KeyBytes id{};
    const auto& bytes = sample.data().protection.keyId;
    std::copy_n(bytes.begin(), std::min(bytes.size(), id.size()), id.begin());
    return id;
}

} // namespace

MseFeeder::Client::~Client() = default;

/// What the reading thread works on; its tasks share it.
struct MseFeeder::Reader {
    std::function<DemuxedMedia(const std::atomic<bool>&)> open;
    std::atomic<bool> cancelled{false};

    locks::Mutex mutex;
    std::vector<std::unique_ptr<SampleStream>> streams GUARDED_BY(mutex);

    void keep(std::vector<std::unique_ptr<SampleStream>> opened) {
        const locks::Lock lock(mutex);
        streams = std::move(opened);
        if (cancelled)
            interruptAll();
    }
    /// They do not change any more: who reads one goes without the lock.
    SampleStream& at(std::size_t index) {
        const locks::Lock lock(mutex);
        return *streams[index];
    }
    void interrupt() {
        const locks::Lock lock(mutex);
        cancelled = true;
        interruptAll();
    }

private:
    void interruptAll() REQUIRES(mutex) {
        for (auto& stream : streams)
            stream->interrupt();
    }
};

MseFeeder::MseFeeder(std::shared_ptr<EventLoop> loop, MediaSource source, Client& client)
    : m_loop(std::move(loop)), m_keys(std::move(source.keys)), m_client(&client),
      m_reader(std::make_shared<Reader>()) {
    m_reader->open = std::move(source.open);
}

MseFeeder::~MseFeeder() {
    stop();
}

/// To the element's loop, if this is still of interest there.
template <typename Task>
void MseFeeder::post(Task task) {
    m_loop->post([weak = weak_from_this(), task = std::move(task)]() mutable {
        const auto self = weak.lock();
        if (self != nullptr && self->m_client != nullptr)
            task(*self);
    });
}

void MseFeeder::open() {
    m_readLoop.post([self = shared_from_this(), reader = m_reader] {
        auto media = reader->open(reader->cancelled);
        std::vector<StreamInfo> infos;
        for (const auto& stream : media.streams)
            infos.push_back(stream->info());
        reader->keep(std::move(media.streams));
        self->post([error = std::move(media.error), infos = std::move(infos)](MseFeeder& feeder) {
            feeder.opened(error, infos);
        });
    });
}

void MseFeeder::opened(std::string error, std::vector<StreamInfo> streams) {
    if (streams.empty())
        return m_client->feederFailed(error.empty() ? "it has no stream that can be fed"
                                                    : std::move(error));
    unsigned int id = 0;
    for (auto& stream : streams) {
        Source source;
        source.info.id = ++id;
        source.info.kind = stream.kind;
        source.stream = std::move(stream);
        m_sources.push_back(std::move(source));
    }
    m_client->feederOpened();
}

std::vector<MseFeeder::SourceInfo> MseFeeder::sources() const {
    std::vector<SourceInfo> infos;
    for (const auto& source : m_sources)
        infos.push_back(source.info);
    return infos;
}

std::unique_ptr<UVABackend::SourceDescription> MseFeeder::describe(unsigned int id) const {
    double duration = 0; // of the whole
    for (const auto& source : m_sources)
        duration = std::max(duration, source.stream.duration);
    for (const auto& source : m_sources)
        if (source.info.id == id)
            return std::make_unique<FedSource>(id, source.stream.mimeType, duration);
    return nullptr;
}

MseFeeder::Source* MseFeeder::find(unsigned int id) {
    for (auto& source : m_sources)
        if (source.info.id == id)
            return &source;
    return nullptr;
}

void MseFeeder::seek(double seconds) {
    for (auto& source : m_sources)
        move(source, seconds);
}

void MseFeeder::restart(unsigned int id, double seconds) {
    if (auto* source = find(id))
        move(*source, seconds);
}

void MseFeeder::move(Source& source, double seconds) {
    ++source.seeks;
    source.request.reset();
    source.ready.clear();
    source.start = seconds;
    source.startDue = true;
    source.info.waitsSince.reset();
    source.reading = source.ended = source.info.ended = false;
    source.error.clear();
    const auto index = static_cast<std::size_t>(&source - m_sources.data());
    m_readLoop.post(
        [self = shared_from_this(), reader = m_reader, index, seconds, seeks = source.seeks] {
            auto error = reader->at(index).seek(seconds);
            if (!error.empty())
                self->post([index, seeks, error = std::move(error)](MseFeeder& feeder) {
                    feeder.take(index, seeks, {{}, false, error});
                });
        });
}

void MseFeeder::request(std::unique_ptr<NeedMSEDataEvent> event) {
    auto* source = find(event->sourceId);
    if (source == nullptr)
        return;
    source->request = std::move(event);
    source->info.waitsSince = m_loop->now();
    serve(*source);
}

void MseFeeder::resume() {
    for (auto& source : m_sources)
        serve(source);
}

void MseFeeder::serve(Source& source) {
    if (source.request == nullptr || source.info.ended)
        return;
    const auto wanted = static_cast<std::size_t>(std::max(1, source.request->samplesRequested));
    if (source.ready.empty() && !source.ended && source.error.empty())
        return read(source, wanted);
    if (const std::size_t count = deliverable(source, wanted); count > 0)
        deliver(source, count);
    if (!source.ready.empty()) {
        if (source.request != nullptr)
            askForKey(source);
    } else if (source.ended) {
        deliverEnd(source);
    } else if (!source.error.empty() && source.request != nullptr) {
        m_client->feederFailed(source.error);
    }
}

void MseFeeder::read(Source& source, std::size_t count) {
    if (source.reading)
        return;
    source.reading = true;
    const auto index = static_cast<std::size_t>(&source - m_sources.data());
    m_readLoop.post(
        [self = shared_from_this(), reader = m_reader, index, count, seeks = source.seeks] {
            auto batch = std::make_shared<SampleStream::Batch>(reader->at(index).read(count));
            self->post([index, seeks, batch](MseFeeder& feeder) {
                feeder.take(index, seeks, std::move(*batch));
            });
        });
}

void MseFeeder::take(std::size_t index, unsigned int seeks, SampleStream::Batch batch) {
    auto& source = m_sources[index];
    if (source.seeks != seeks)
        return;
    source.reading = false;
    for (auto& sample : batch.samples)
        source.ready.push_back(std::move(sample));
    source.ended = batch.ended;
    source.error = std::move(batch.error);
    const bool nothingYet = source.ready.empty() && !source.ended && source.error.empty();
    if (!nothingYet)
        serve(source);
}

/// How many of the samples in front can be decrypted, or are clear.
std::size_t MseFeeder::deliverable(const Source& source, std::size_t most) const {
    std::size_t count = 0;
    for (; count < std::min(most, source.ready.size()); ++count) {
        const Sample& sample = *source.ready[count];
        if (sample.keyId() != nullptr && (m_keys == nullptr || !m_keys->hasKey(keyIdOf(sample))))
            break;
    }
    return count;
}

bool MseFeeder::waitsForKey() const {
    return std::any_of(m_sources.begin(), m_sources.end(), [this](const Source& source) {
        return source.request != nullptr && !source.ready.empty() && deliverable(source, 1) == 0;
    });
}

void MseFeeder::askForKey(Source& source) {
    const KeyBytes id = keyIdOf(*source.ready.front());
    if (source.keyAskedFor == id)
        return;
    source.keyAskedFor = id;
    m_client->keyNeeded(id);
}

/// A sample without payload, whose time is where playback is to start: it keeps what is decoded
/// only on the way there from being shown, and makes all sources start together.
void MseFeeder::deliverStart(Source& source) {
    source.startDue = false;
    SampleData data;
    data.pts = source.start;
    data.duration = 0;
    auto event = std::make_unique<NeedMSEDataEvent>(source.info.id, 0);
    event->samples = new UVASample* [2] { new Sample(std::move(data)), nullptr };
    m_client->writeData(std::move(event), 0, 0, UVABackend::Data);
}

void MseFeeder::deliver(Source& source, std::size_t count) {
    if (source.startDue)
        deliverStart(source);
    auto event = std::move(source.request);
    source.info.waitsSince.reset();
    event->samples = new UVASample* [count + 1] {};
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < count; ++i) {
        bytes += source.ready.front()->payloadSize();
        event->samples[i] = source.ready.front().release();
        source.ready.pop_front();
    }
    m_client->writeData(std::move(event), static_cast<unsigned int>(count),
                        static_cast<unsigned int>(bytes), UVABackend::Data);
}

void MseFeeder::deliverEnd(Source& source) {
    source.info.ended = true;
    source.info.waitsSince.reset();
    source.request.reset();
    m_client->writeData(std::make_unique<NeedMSEDataEvent>(source.info.id, 0), 0, 0,
                        UVABackend::EndOfStream);
}

void MseFeeder::stop() {
    if (m_client == nullptr)
        return;
    m_client = nullptr;
    m_reader->interrupt();
    m_readLoop.stop(std::chrono::seconds(2));
}

} // namespace host
