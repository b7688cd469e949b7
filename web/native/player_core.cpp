#include "player_core.h"

#include "runtime.h"

#include <algorithm>
#include <set>

namespace uva_native {

namespace {

std::mutex livingMutex;
std::set<PlayerCore*> living; // guarded

} // namespace

PlayerCore::PlayerCore(std::shared_ptr<EventQueue> events)
    : m_events(std::move(events)), m_keyPlace(Runtime::instance().keys().makePlace()),
      m_element(Runtime::instance().library(), Runtime::instance().loop(), *this,
                elementOptions()) {
    const std::lock_guard<std::mutex> lock(livingMutex);
    living.insert(this);
}

PlayerCore::~PlayerCore() {
    release(std::chrono::seconds(10));
}

host::MediaElement::Options PlayerCore::elementOptions() {
    auto options = Runtime::instance().elementOptions();
    options.takeError = [this] { return m_errors.take(); };
    return options;
}

// ---- tracks

host::SourceId PlayerCore::addTrack(Kind kind, const std::string& mimeType) {
    host::StreamInfo info;
    info.kind = kind;
    info.mimeType = mimeType;
    auto& track = m_tracks[++m_lastTrack];
    track.kind = kind;
    track.buffer = std::make_unique<host::TrackBuffer>(info);
    track.buffer->setEnded(m_ended);
    attachOneOf(kind);
    return m_lastTrack;
}

/// A backend plays one source of a kind.
void PlayerCore::attachOneOf(Kind kind) {
    auto candidate = m_tracks.end();
    for (auto track = m_tracks.begin(); track != m_tracks.end(); ++track) {
        if (track->second.kind == kind && track->second.source != 0)
            return;
        if (track->second.kind == kind && candidate == m_tracks.end())
            candidate = track;
    }
    if (candidate == m_tracks.end())
        return;
    const auto source = m_element.attach(candidate->second.buffer->stream());
    candidate->second.source = source;
    const std::lock_guard<std::mutex> lock(m_sourceMutex);
    m_trackOfSource[source] = candidate->first;
}

double PlayerCore::trackOf(host::SourceId source) {
    const std::lock_guard<std::mutex> lock(m_sourceMutex);
    const auto found = m_trackOfSource.find(source);
    return found == m_trackOfSource.end() ? 0 : static_cast<double>(found->second);
}

bool PlayerCore::removeTrack(host::SourceId id) {
    const auto found = m_tracks.find(id);
    if (found == m_tracks.end())
        return false;
    const auto kind = found->second.kind;
    if (found->second.source != 0)
        m_element.detach(found->second.source);
    m_tracks.erase(found);
    attachOneOf(kind);
    return true;
}

host::TrackBuffer* PlayerCore::buffer(host::SourceId track) {
    const auto found = m_tracks.find(track);
    return found == m_tracks.end() ? nullptr : found->second.buffer.get();
}

void PlayerCore::setEnded(bool ended) {
    m_ended = ended;
    for (auto& [id, track] : m_tracks)
        track.buffer->setEnded(ended);
}

// ---- playback

void PlayerCore::open(double start, double duration, std::uint64_t session) {
    setKeySession(session);
    host::MediaSource source;
    source.start = start;
    source.duration = duration;
    source.keys = Runtime::instance().clearKey();
    source.keySession = m_keyPlace;
    m_element.openSource(std::move(source));
}

void PlayerCore::setKeySession(std::uint64_t session) {
    Runtime::instance().keys().use(m_keyPlace, session);
}

std::string PlayerCore::describe() const {
    std::string text = "position " + std::to_string(m_element.position());
    for (const auto& [id, track] : m_tracks)
        text += std::string("; ") + (track.kind == Kind::Video ? "video" : "audio") + " track " +
                std::to_string(id) + (track.source == 0 ? " (not played)" : "") + ": " +
                std::to_string(track.buffer->size()) + " frames" + (m_ended ? ", ended" : "");
    if (const auto operation = m_element.operationUnderWay())
        text += "; the backend is busy with " + operation->name;
    return text;
}

bool PlayerCore::release(std::chrono::milliseconds bound) {
    const std::lock_guard<std::mutex> lock(m_releaseMutex);
    if (m_released)
        return true;
    m_released = true;
    {
        const std::lock_guard<std::mutex> registry(livingMutex);
        living.erase(this);
    }
    const bool isReleased = m_element.release(bound);
    Runtime::instance().keys().removePlace(m_keyPlace);
    m_events->release();
    return isReleased;
}

void PlayerCore::releaseAll(std::chrono::milliseconds bound) {
    for (;;) {
        PlayerCore* next = nullptr;
        {
            const std::lock_guard<std::mutex> lock(livingMutex);
            if (living.empty())
                return;
            next = *living.begin();
        }
        next->release(bound);
    }
}

// ---- what becomes of it

void PlayerCore::onRecord(const host::Record& record) {
    if (record.kind == host::Record::Kind::Operation && record.onLoop)
        m_errors.operated();
}

void PlayerCore::onStatus(const host::Status& status) {
    tellOfMedia(status);
    tellOfState(status);
    m_told = status;
}

void PlayerCore::tellOfMedia(const host::Status& status) {
    const bool isKnown = status.width > 0 || status.duration > 0;
    const bool isSame = status.width == m_told.width && status.height == m_told.height &&
                        status.duration == m_told.duration &&
                        status.pixelAspectRatio == m_told.pixelAspectRatio;
    if (!isKnown || isSame)
        return;
    m_events->push({"metadata",
                    {{"duration", status.duration},
                     {"width", static_cast<double>(std::max(0, status.width))},
                     {"height", static_cast<double>(std::max(0, status.height))},
                     {"pixelAspectRatio", status.pixelAspectRatio}},
                    {}});
}

void PlayerCore::tellOfState(const host::Status& status) {
    if (status.state == m_told.state)
        return;
    if (status.state == host::State::Opening && m_told.state == host::State::Idle)
        m_events->push({"opened", {}, {}});
    if (status.state == host::State::Failed)
        m_events->push({"error", {{"reason", status.reason}}, {}});
    m_events->push({"state", {{"state", host::name(status.state)}}, "state"});
}

void PlayerCore::onSeek(const host::SeekResult& result) {
    m_events->push({"seek",
                    {{"generation", static_cast<double>(result.generation)},
                     {"target", result.target},
                     {"outcome", host::name(result.outcome)},
                     {"position", result.position}},
                    {}});
}

void PlayerCore::onEnd(double position) {
    m_events->push({"ended", {{"position", position}}, "ended"});
}

void PlayerCore::onStarved(host::SourceId source) {
    m_events->push({"starved", {{"track", trackOf(source)}}, "supply " + std::to_string(source)});
}

void PlayerCore::onFilled(host::SourceId source) {
    m_events->push({"filled", {{"track", trackOf(source)}}, "supply " + std::to_string(source)});
}

void PlayerCore::onKeyNeeded(host::SourceId source, const host::KeyBytes& id, double time) {
    const auto key = host::hexText(id);
    m_events->push(
        {"keyNeeded", {{"track", trackOf(source)}, {"keyId", key}, {"time", time}}, "key " + key});
}

} // namespace uva_native
