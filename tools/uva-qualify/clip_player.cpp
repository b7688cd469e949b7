#include "clip_player.h"

#include "host/media_demuxer.h"
#include "host/media_uri.h"
#include "nox/screen.h"

#include <atomic>
#include <thread>
#include <utility>

namespace qualify {

namespace {

constexpr Milliseconds tick{10};

host::SourceId nextSources() {
    static std::atomic<host::SourceId> next{sourcesOfAnElement};
    return next.fetch_add(sourcesOfAnElement);
}

host::PictureCounters countersOf(host::SourceId source) {
    const auto counted = nox::Screen::instance().counters(source);
    return {counted.shown, counted.dropped, counted.corrupted};
}

} // namespace

bool waitUntil(const std::function<bool()>& predicate, Milliseconds bound) {
    const auto end = Clock::now() + bound;
    while (!predicate()) {
        if (Clock::now() > end)
            return false;
        std::this_thread::sleep_for(Milliseconds(2));
    }
    return true;
}

double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

Player::Player(const Stage& stage, const Setup& setup) : m_setup(setup), m_keys(stage.keys) {
    host::MediaElement::Options options;
    options.resources = setup.resources;
    options.userAgent = "uva-qualify";
    options.tick = tick;
    options.firstSource = nextSources();
    options.mainSystem = !stage.standalone;
    options.pictures = countersOf;
    m_element = std::make_unique<host::MediaElement>(stage.library, stage.loop, *this, options);
    m_watch = stage.observation->watch(*m_element, setup.url ? 0 : options.firstSource);
}

Player::~Player() {
    release();
    m_watch.reset(); // it looks at the element
}

void Player::open(const Clip& clip) {
    if (m_setup.url)
        return m_element->open(host::fileUri(clip.path));
    host::MediaSource source;
    source.keys = m_keys;
    source.keySession = m_setup.keySession;
    source.open = [path = clip.path](const std::atomic<bool>& cancelled) {
        return host::openMedia(path, cancelled);
    };
    m_element->openSource(std::move(source));
}

void Player::openStreams(std::vector<std::unique_ptr<host::SampleStream>> streams) {
    for (auto& stream : streams)
        m_element->attach(std::move(stream));
    host::MediaSource source;
    source.keys = m_keys;
    source.keySession = m_setup.keySession;
    m_element->openSource(std::move(source));
}

Clock::time_point Player::play() {
    const auto now = Clock::now();
    m_element->play();
    return now;
}

Clock::time_point Player::pause() {
    const auto now = Clock::now();
    m_element->pause();
    return now;
}

host::Status Player::status() const {
    const MutexLock lock(m_mutex);
    return m_status;
}

std::string Player::story() const {
    const MutexLock lock(m_mutex);
    return m_story;
}

unsigned int Player::starvedTimes() const {
    const MutexLock lock(m_mutex);
    return m_starved;
}

unsigned int Player::keysNeeded() const {
    const MutexLock lock(m_mutex);
    return m_keysNeeded;
}

bool Player::waitFor(host::State state, Milliseconds bound) {
    host::State now{};
    const bool came = waitUntil(
        [&] {
            now = status().state;
            return now == state || now == host::State::Failed;
        },
        bound);
    return came && now == state;
}

bool Player::waitForPosition(double seconds, Milliseconds bound) {
    return waitUntil([&] { return m_element->position() >= seconds || isFailed(); }, bound) &&
           !isFailed();
}

bool Player::waitForPicture(int number, std::size_t behind, Milliseconds bound) {
    return waitUntil(
        [&] {
            const auto& pictures = m_watch->pictures();
            return pictures.size() > behind && pictures.back().mark &&
                   pictures.back().mark->number >= number;
        },
        bound);
}

std::optional<host::SeekResult> Player::seek(double seconds) {
    return waitForSeek(m_element->seek(seconds));
}

std::optional<host::SeekResult> Player::waitForSeek(std::uint64_t generation) {
    std::optional<host::SeekResult> result;
    waitUntil([&] {
        const MutexLock lock(m_mutex);
        const auto found = m_seeks.find(generation);
        if (found != m_seeks.end())
            result = found->second;
        return result.has_value();
    });
    return result;
}

std::optional<double> Player::release(Milliseconds bound) {
    const auto begin = Clock::now();
    const bool released = m_element->release(bound);
    return released ? std::optional(secondsBetween(begin, Clock::now())) : std::nullopt;
}

void Player::onRecord(const host::Record& /*record*/) {}

void Player::onStatus(const host::Status& status) {
    const MutexLock lock(m_mutex);
    if (status.state != m_status.state) {
        m_story += (m_story.empty() ? "" : ", ") + std::string(name(status.state));
        if (!status.reason.empty())
            m_story += " (" + status.reason + ")";
    }
    m_status = status;
}

void Player::onSeek(const host::SeekResult& result) {
    const MutexLock lock(m_mutex);
    m_seeks[result.generation] = result;
}

void Player::onStarved(host::SourceId /*source*/) {
    const MutexLock lock(m_mutex);
    ++m_starved;
}

void Player::onKeyNeeded(host::SourceId /*source*/, const host::KeyBytes& /*id*/, double /*time*/) {
    const MutexLock lock(m_mutex);
    ++m_keysNeeded;
}

} // namespace qualify
