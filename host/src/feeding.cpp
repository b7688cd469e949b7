#include "feeding.h"

#include "calls.h"
#include "playback.h"
#include "progress_watch.h"

#include <algorithm>
#include <cmath>

namespace host {

namespace {

// When playback is held. A decoder must not run dry: what comes late for the clock is lost. What
// the backend holds, it holds in front of the decoder and in it; it plays on until the next looks.
constexpr double decoderNeeds = 0.05;                     // seconds
constexpr double decoderKeeps = 0.3;                      // seconds at most, until more comes
constexpr double looks = 4.5;                             // at playback, until it is held
constexpr auto patience = std::chrono::milliseconds(100); // with a stream that is being read

double inSeconds(Clock::duration time) {
    return std::chrono::duration<double>(time).count();
}

} // namespace

Feeding::Feeding(Calls& calls, Playback& playback, ProgressWatch& watch, RequestLedger& requests,
                 MediaSource source, Options options)
    : m_calls(calls), m_playback(playback), m_watch(watch), m_requests(requests),
      m_options(std::move(options)), m_keys(source.keys), m_keySession(source.keySession),
      m_tooLittle(decoderNeeds + looks * inSeconds(m_options.tick)), m_enough(2 * m_tooLittle),
      m_feeder(std::make_shared<MseFeeder>(calls.loop(), source, *this, m_options.nextId)) {
    m_playback.playFrom(source.start);
    if (const double duration = knownDuration(source.duration); duration > 0)
        m_playback.setDuration(duration);
}

bool Feeding::isOpen() const {
    return m_playback.reached(Playback::Stage::Initialized);
}

// ---- sources

void Feeding::feederOpened() {
    std::vector<UVABackend::SourceDescription*> sources;
    std::string types;
    for (const auto& info : m_feeder->sources()) {
        sources.push_back(m_feeder->describe(info.id).release());
        types += (types.empty() ? "" : ", ") + std::string(sources.back()->mimeType);
        m_playback.addSource(info.id, info.kind);
    }
    sources.push_back(nullptr);
    if (!m_playback.initialize(sources.data(), {{"sources", types}}))
        return;
    m_playback.advance(Playback::Stage::Known);
    m_playback.catchUp();
}

void Feeding::attach(SourceId id, std::shared_ptr<SampleStream> stream) {
    const auto kind = stream->info().kind;
    m_feeder->add(id, std::move(stream), m_playback.status().position);
    if (!isOpen())
        return; // with the others
    const bool isFirst = m_playback.status().sources.empty();
    m_playback.addSource(id, kind);
    attachToBackend(id);
    if (isFirst)
        m_playback.catchUp(); // there was nothing to play or pause
}

void Feeding::attachToBackend(SourceId id) {
    auto* description = m_feeder->describe(id).release(); // the backend's
    const int attached = m_calls.operate(
        "attachSource", {number("sourceId", id), {"mimeType", std::string(description->mimeType)}},
        &UVAMediaBackend::attachSource, description);
    if (attached != UVABackend::Success)
        m_playback.fail("the backend did not take the source; see the system log");
}

void Feeding::detach(SourceId id) {
    if (!m_feeder->remove(id))
        return;
    m_starved.erase(id);
    if (!isOpen())
        return;
    m_playback.removeSource(id);
    removeFromBackend(id);
}

/// Behind it no request of the source comes.
void Feeding::removeFromBackend(SourceId id) {
    m_calls.operate("removeSource", {number("sourceId", id)}, &UVAMediaBackend::removeSource, id);
    m_requests.revoke(id);
}

void Feeding::reattach(StreamInfo::Kind kind) {
    if (!isOpen() || m_playback.over())
        return;
    for (const auto& source : m_feeder->sources())
        if (source.kind == kind)
            renew(source.id);
}

void Feeding::renew(SourceId id) {
    removeFromBackend(id);
    m_feeder->restart(id, m_playback.status().position);
    m_watch.decoderReturned(); // its sink asks anew
    attachToBackend(id);
}

/// In front of the change is the old codec again: playback goes on behind it.
std::optional<double> Feeding::changeCodecs(bool finished) {
    std::optional<double> goOn;
    if (!isOpen() || m_playback.over())
        return goOn;
    for (const auto& source : m_feeder->sources()) {
        const double position = m_playback.status().position;
        const bool isFed = source.fedUntil.has_value();
        const bool isPlayed =
            finished || !isFed || *source.fedUntil <= position + inSeconds(m_options.tick);
        if (!source.changesCodecAt || !isPlayed)
            continue;
        m_feeder->takeCodec(source.id);
        renew(source.id);
        if (isFed)
            goOn = std::max(position, *source.changesCodecAt);
    }
    return goOn;
}

void Feeding::setDuration(double seconds) {
    m_feeder->setDuration(seconds);
    if (isOpen())
        m_calls.operate("setContentSize", {{"seconds", seconds}}, &UVAMediaBackend::setContentSize,
                        0U, static_cast<unsigned long long>(std::llround(seconds * 1000)));
}

// ---- what passes

bool Feeding::begin(double seconds) {
    if (m_playback.reached(Playback::Stage::Played) || !m_feeder->begin(seconds))
        return false;
    m_playback.playFrom(seconds);
    return true;
}

void Feeding::seek(double seconds) {
    forgetOutdated();
    revokeRequests();
    m_feeder->seek(seconds);
}

void Feeding::stop() {
    revokeRequests();
    m_feeder->stop();
}

/// Those of a stream that has nothing to give, or lacks a key, may have been open for long.
void Feeding::revokeRequests() {
    std::set<SourceId> excused;
    for (const auto& source : m_feeder->sources())
        if (source.isBlocked)
            excused.insert(source.id);
    m_requests.revokeAll(m_calls.now(), m_watch.patienceWithData(), excused);
}

void Feeding::feederFailed(const std::string& reason) {
    m_playback.fail(reason);
}

void Feeding::keyNeeded(SourceId source, const KeyBytes& id, double time) {
    m_calls.observe([&](Observer& observer) { observer.onKeyNeeded(source, id, time); });
}

void Feeding::protectionMet() {
    UVAKeySystemConfig config;
    config.keySystemId = clearKeySystem;
    config.client = m_keySession;
    m_calls.operate("setKeySystem", {{"id", std::string(clearKeySystem)}},
                    [&](UVAMediaBackend& backend) { return backend.setKeySystem(config); });
}

void Feeding::writeData(MseFeeder::Request answered, unsigned int samples, unsigned int bytes,
                        UVABackend::WriteDataStatus status) {
    auto* data = answered.event.release(); // the backend's
    if (status == UVABackend::EndOfStream)
        m_requests.end(data->sourceId);
    else if (samples > 0)
        m_requests.answer(data->sourceId, answered.number);
    m_calls.operate("writeData",
                    {number("sourceId", data->sourceId), number("samples", samples),
                     number("bytes", bytes), number("status", status)},
                    &UVAMediaBackend::writeData, data, bytes, status);
    if (samples > 0 && m_options.asksMainSystem && !m_watch.hasAskedForDecoder())
        m_watch.decoderAsked(m_calls.now()); // such sinks do not ask the host first
}

void Feeding::outdated(double until) {
    m_outdatedUntil = std::max(m_outdatedUntil.value_or(until), until);
}

// ---- the balance

void Feeding::balance() {
    if (!isOpen() || m_playback.over() || m_playback.is(State::Seeking))
        return;
    watchMovement();
    const auto infos = m_feeder->sources();
    for (const auto& info : infos)
        watchSource(info);
    const bool filled = std::all_of(infos.begin(), infos.end(),
                                    [this](const auto& info) { return isFilled(info); });
    if (!m_playback.isHeld() && m_playback.isWanted() && !m_starved.empty())
        m_playback.hold();
    else if (m_playback.isHeld() && m_starved.empty() && filled)
        m_playback.letGo();
}

void Feeding::watchMovement() {
    if (m_playback.is(State::Playing) && m_playback.status().position == m_position)
        return;
    m_position = m_playback.status().position;
    m_movedAt = m_calls.now();
}

/// A decoder may keep some pictures until more data comes.
bool Feeding::standsStill() const {
    return m_playback.is(State::Playing) && m_movedAt < m_calls.now() - patience;
}

void Feeding::watchSource(const MseFeeder::SourceInfo& info) {
    const bool wasStarved = m_starved.count(info.id) > 0;
    if (!wasStarved && m_playback.isWanted() && runsDry(info)) {
        const double left = ahead(info.id);
        m_starved[info.id] = std::isnan(left) ? 0 : left;
        m_calls.observe([&](Observer& observer) { observer.onStarved(info.id); });
    } else if (wasStarved && isFilled(info)) {
        m_starved.erase(info.id);
        m_calls.observe([&](Observer& observer) { observer.onFilled(info.id); });
    }
}

/// The source has asked for data in vain, and soon has none, or none that can be shown.
bool Feeding::runsDry(const MseFeeder::SourceInfo& info) const {
    if (info.ended || info.changesCodecAt || !info.waitsSince)
        return false;
    const bool inVain = info.isBlocked || *info.waitsSince < m_calls.now() - patience;
    const double left = ahead(info.id);
    return inVain && (left < m_tooLittle || (left < decoderKeeps && standsStill()));
}

/// It has enough, or does not ask for more: a backend may hold less.
bool Feeding::isFilled(const MseFeeder::SourceInfo& info) const {
    if (info.ended || info.changesCodecAt)
        return true;
    const auto starved = m_starved.find(info.id);
    const double wanted =
        starved == m_starved.end() ? m_enough : std::max(m_enough, starved->second + m_tooLittle);
    const double left = ahead(info.id);
    return !std::isnan(left) && (!info.waitsSince || left >= wanted);
}

/// Seconds that the backend can still play of it; NaN before its first sample.
double Feeding::ahead(SourceId id) const {
    const auto& status = m_playback.status();
    for (const auto& source : status.sources)
        if (source.id == id && !source.ranges.empty())
            return source.ranges.back().end - status.position;
    return std::nan("");
}

} // namespace host
