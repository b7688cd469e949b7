#include "mse_feeder.h"

#include "stream_format.h"

#include <algorithm>
#include <cmath>
#include <limits>
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
        durationMs = static_cast<unsigned long long>(std::llround(knownDuration(duration) * 1000));
    }

private:
    const std::string m_mime;
};

const KeyBytes& keyIdOf(const Sample& sample) {
    return sample.data().protection.keyId;
}

} // namespace

double knownDuration(double seconds) {
    constexpr double longest = 9e9; // what nanoseconds in 64 bits hold
    return seconds > 0 && seconds <= longest ? seconds : 0;
}

MseFeeder::Client::~Client() = default;

MseFeeder::MseFeeder(std::shared_ptr<EventLoop> loop, MediaSource source, Client& client,
                     std::function<SourceId()> nextId)
    : m_loop(std::move(loop)), m_keys(std::move(source.keys)), m_keySession(source.keySession),
      m_nextId(std::move(nextId)), m_start(source.start),
      m_duration(knownDuration(source.duration)), m_client(&client), m_open(std::move(source.open)),
      m_cancelled(std::make_shared<std::atomic<bool>>(false)) {}

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

// ---- sources

void MseFeeder::open() {
    if (!m_open)
        return m_client->feederOpened();
    m_readLoop.post([self = shared_from_this(), open = m_open, cancelled = m_cancelled] {
        auto media = std::make_shared<DemuxedMedia>(open(*cancelled));
        self->post([media](MseFeeder& feeder) { feeder.opened(std::move(*media)); });
    });
}

void MseFeeder::opened(DemuxedMedia media) {
    if (media.streams.empty())
        return m_client->feederFailed(media.error.empty() ? "it has no stream that can be fed"
                                                          : std::move(media.error));
    for (auto& stream : media.streams)
        add(m_nextId(), std::move(stream), m_start);
    m_client->feederOpened();
}

void MseFeeder::add(SourceId id, std::shared_ptr<SampleStream> stream, double seconds) {
    auto source = std::make_unique<Source>();
    source->info.id = id;
    source->info.kind = stream->info().kind;
    source->mimeType = stream->info().mimeType;
    source->stream = std::move(stream);
    source->stream->listen([weak = weak_from_this(), loop = m_loop, id](const auto& change) {
        loop->post([weak, id, change] {
            if (const auto self = weak.lock(); self != nullptr && self->m_client != nullptr)
                self->changed(id, change);
        });
    });
    m_sources.push_back(std::move(source));
    if (seconds > 0 || m_sources.back()->stream->isImmediate())
        place(*m_sources.back(), seconds);
}

bool MseFeeder::remove(SourceId id) {
    const auto at = std::find_if(m_sources.begin(), m_sources.end(),
                                 [id](const auto& source) { return source->info.id == id; });
    if (at == m_sources.end())
        return false;
    (*at)->stream->listen({});
    (*at)->stream->interrupt();
    m_sources.erase(at);
    return true;
}

std::vector<MseFeeder::SourceInfo> MseFeeder::sources() const {
    std::vector<SourceInfo> infos;
    infos.reserve(m_sources.size());
    for (const auto& source : m_sources)
        infos.push_back(source->info);
    return infos;
}

std::unique_ptr<UVABackend::SourceDescription> MseFeeder::describe(SourceId id) const {
    double duration = m_duration;
    for (const auto& source : m_sources)
        if (m_duration <= 0)
            duration = std::max(duration, knownDuration(source->stream->info().duration));
    for (const auto& source : m_sources)
        if (source->info.id == id)
            return std::make_unique<FedSource>(id, source->mimeType, duration);
    return nullptr;
}

void MseFeeder::takeCodec(SourceId id) {
    auto* source = find(id);
    if (source == nullptr || source->ready.empty())
        return;
    if (const auto* type = mediaSourceType(source->ready.front()->config()))
        source->mimeType = type;
    source->info.changesCodecAt.reset();
}

MseFeeder::Source* MseFeeder::find(SourceId id) {
    for (auto& source : m_sources)
        if (source->info.id == id)
            return source.get();
    return nullptr;
}

bool MseFeeder::hasEnded() const {
    return !m_sources.empty() && std::all_of(m_sources.begin(), m_sources.end(),
                                             [](const auto& source) { return source->info.ended; });
}

/// Of a stream that is filled while it is read.
void MseFeeder::changed(SourceId id, const SampleStream::Change& change) {
    using Kind = SampleStream::Change::Kind;
    auto* source = find(id);
    if (source == nullptr)
        return;
    if (change.kind == Kind::Replaced)
        return m_client->outdated(change.until);
    if (change.kind == Kind::Reopened) {
        source->ended = false;
        if (source->info.ended)
            return m_client->outdated(std::numeric_limits<double>::infinity());
    }
    serve(*source);
}

// ---- where they are read

bool MseFeeder::begin(double seconds) {
    const bool begun = std::any_of(m_sources.begin(), m_sources.end(),
                                   [](const auto& source) { return !source->startDue; });
    if (begun)
        return false;
    m_start = seconds;
    for (auto& source : m_sources) {
        place(*source, seconds);
        serve(*source);
    }
    return true;
}

void MseFeeder::seek(double seconds) {
    for (auto& source : m_sources)
        move(*source, seconds);
}

void MseFeeder::restart(SourceId id, double seconds) {
    if (auto* source = find(id))
        move(*source, seconds);
}

void MseFeeder::move(Source& source, double seconds) {
    source.request = {};
    source.info.waitsSince.reset();
    place(source, seconds);
}

/// What is read next, and given to the backend, begins at a time.
void MseFeeder::place(Source& source, double seconds) {
    source.round = ++m_rounds;
    source.ready.clear();
    source.start = seconds;
    source.startDue = true;
    source.reading = source.readAgain = source.ended = source.info.ended = false;
    source.info.isBlocked = false;
    source.info.changesCodecAt.reset();
    source.info.fedUntil.reset();
    source.error.clear();
    source.keyAskedFor.reset();
    if (source.stream->isImmediate()) {
        source.error = source.stream->seek(seconds);
        return;
    }
    m_readLoop.post([self = shared_from_this(), stream = source.stream, id = source.info.id,
                     seconds, round = source.round] {
        auto error = stream->seek(seconds);
        if (!error.empty())
            self->post([id, round, error = std::move(error)](MseFeeder& feeder) {
                feeder.take(id, round, {{}, false, error});
            });
    });
}

void MseFeeder::read(Source& source, std::size_t count) {
    if (source.reading) {
        source.readAgain = true;
        return;
    }
    if (source.stream->isImmediate())
        return take(source, source.stream->read(count));
    source.reading = true;
    m_readLoop.post([self = shared_from_this(), stream = source.stream, id = source.info.id, count,
                     round = source.round] {
        auto batch = std::make_shared<SampleStream::Batch>(stream->read(count));
        self->post(
            [id, round, batch](MseFeeder& feeder) { feeder.take(id, round, std::move(*batch)); });
    });
}

void MseFeeder::take(SourceId id, unsigned int round, SampleStream::Batch batch) {
    auto* source = find(id);
    if (source != nullptr && source->round == round)
        take(*source, std::move(batch));
}

void MseFeeder::take(Source& source, SampleStream::Batch batch) {
    source.reading = false;
    for (auto& sample : batch.samples)
        source.ready.push_back(std::move(sample));
    source.ended = batch.ended;
    source.error = std::move(batch.error);
    const bool readAgain = std::exchange(source.readAgain, false);
    source.info.isBlocked = source.ready.empty() && !source.ended && source.error.empty();
    if (!source.info.isBlocked || readAgain)
        serve(source);
}

// ---- what is given to the backend

void MseFeeder::request(Request request) {
    auto* source = find(request.event->sourceId);
    if (source == nullptr)
        return;
    source->request = std::move(request);
    source->info.waitsSince = m_loop->now();
    source->info.isBlocked = false;
    serve(*source);
}

void MseFeeder::resume() {
    for (auto& source : m_sources)
        serve(*source);
}

void MseFeeder::serve(Source& source) {
    if (source.request.event == nullptr || source.info.ended || source.info.changesCodecAt)
        return;
    const auto wanted =
        static_cast<std::size_t>(std::max(1, source.request.event->samplesRequested));
    if (source.ready.empty() && !source.ended && source.error.empty())
        return read(source, wanted);
    if (const std::size_t count = deliverable(source, wanted); count > 0)
        deliver(source, count);
    if (!source.ready.empty()) {
        if (source.request.event != nullptr)
            hold(source);
    } else if (source.ended) {
        deliverEnd(source);
    } else if (!source.error.empty() && source.request.event != nullptr) {
        m_client->feederFailed(source.error);
    }
}

/// Nothing of what is there can be delivered.
void MseFeeder::hold(Source& source) {
    const Sample& next = *source.ready.front();
    source.info.isBlocked = true;
    if (changesCodec(source, next)) {
        source.info.changesCodecAt = next.pts();
        if (!source.startDue)
            writeEnd(source); // else its last pictures stay in the decoder
        return;
    }
    if (!lacksKey(next))
        return;
    const KeyBytes id = keyIdOf(next);
    if (source.keyAskedFor == id)
        return;
    source.keyAskedFor = id;
    meetProtection();
    m_client->keyNeeded(source.info.id, id, next.pts());
}

void MseFeeder::meetProtection() {
    if (!std::exchange(m_hasMetProtection, true))
        m_client->protectionMet();
}

bool MseFeeder::lacksKey(const Sample& sample) const {
    return sample.keyId() != nullptr &&
           (m_keys == nullptr || !m_keys->hasKey(keyIdOf(sample), m_keySession));
}

/// One source of a backend has one codec.
bool MseFeeder::changesCodec(const Source& source, const Sample& sample) {
    const auto* type = mediaSourceType(sample.config());
    return type != nullptr && source.mimeType != type;
}

/// How many of the samples in front can be decrypted, or are clear, and have the codec.
std::size_t MseFeeder::deliverable(const Source& source, std::size_t most) const {
    const auto& ready = source.ready;
    const auto end = ready.begin() + static_cast<std::ptrdiff_t>(std::min(most, ready.size()));
    const auto at = std::find_if(ready.begin(), end, [&](const auto& sample) {
        return lacksKey(*sample) || changesCodec(source, *sample);
    });
    return static_cast<std::size_t>(at - ready.begin());
}

bool MseFeeder::waitsForKey() const {
    return std::any_of(m_sources.begin(), m_sources.end(), [this](const auto& source) {
        return source->request.event != nullptr && !source->ready.empty() &&
               lacksKey(*source->ready.front());
    });
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
    m_client->writeData({std::move(event)}, 0, 0, UVABackend::Data);
}

void MseFeeder::deliver(Source& source, std::size_t count) {
    const auto begin = source.ready.begin();
    const auto end = begin + static_cast<std::ptrdiff_t>(count);
    const bool isProtected =
        std::any_of(begin, end, [](const auto& sample) { return sample->keyId() != nullptr; });
    if (isProtected)
        meetProtection();
    if (source.startDue)
        deliverStart(source);
    auto request = std::exchange(source.request, {});
    auto& event = request.event;
    source.info.waitsSince.reset();
    source.info.isBlocked = false;
    source.keyAskedFor.reset();
    event->samples = new UVASample* [count + 1] {};
    std::size_t bytes = 0;
    auto& until = source.info.fedUntil;
    for (std::size_t i = 0; i < count; ++i) {
        auto& sample = source.ready.front();
        bytes += sample->payloadSize();
        const double sampleEnd = sample->pts() + std::max(0.0, sample->duration());
        until = std::max(until.value_or(sampleEnd), sampleEnd);
        event->samples[i] = sample.release();
        source.ready.pop_front();
    }
    m_client->writeData(std::move(request), static_cast<unsigned int>(count),
                        static_cast<unsigned int>(bytes), UVABackend::Data);
}

void MseFeeder::deliverEnd(Source& source) {
    source.info.ended = true;
    writeEnd(source);
}

void MseFeeder::writeEnd(Source& source) {
    source.info.waitsSince.reset();
    source.info.isBlocked = false;
    source.request = {};
    m_client->writeData({std::make_unique<NeedMSEDataEvent>(source.info.id, 0)}, 0, 0,
                        UVABackend::EndOfStream);
}

void MseFeeder::stop() {
    if (m_client == nullptr)
        return;
    m_client = nullptr;
    *m_cancelled = true;
    for (auto& source : m_sources) {
        source->stream->listen({});
        source->stream->interrupt();
    }
    m_readLoop.stop(std::chrono::seconds(2));
}

} // namespace host
