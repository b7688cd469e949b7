#include "player.h"

#include "host/sample.h"
#include "request_ledger.h"

#include <algorithm>
#include <cstring>
#include <pthread.h>

namespace chaos {

namespace {

using Outcome = SeekCompletedExEvent::SeekOutcome;

constexpr milliseconds atOnce{0};
/// setPosition waits so long for a request that another thread is delivering.
constexpr milliseconds waitForRequest{500};

class FedSource final : public UVABackend::SourceDescription {
public:
    FedSource(unsigned int id, std::string mime, double duration) : m_mime(std::move(mime)) {
        constexpr int seekable = 1;
        type = MseStreaming;
        sourceId = static_cast<int>(id);
        mimeType = m_mime.c_str();
        streamType = seekable;
        durationMs = static_cast<unsigned long long>(duration * 1000);
    }

private:
    const std::string m_mime;
};

class UrlSource final : public UVABackend::SourceDescription {
public:
    explicit UrlSource(std::string address) : m_address(std::move(address)) {
        type = BackendStreaming;
        url = m_address.c_str();
        userAgent = "chaos/1.0";
        mimeType = "video/mp4";
    }

private:
    const std::string m_address;
};

bool isOnMainLoop() {
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    return std::strcmp(name, "gst_run") == 0;
}

} // namespace

Player::Player(const host::BackendLibrary& library, const Habits& habits, Random random)
    : m_library(library), m_habits(habits), m_requests(std::make_unique<host::RequestLedger>()),
      m_random(random), m_backend(within(atOnce, "UVA_RequestBackend", [&] {
          return library.request(UVABackend::VideoElement, this);
      })) {
    require(m_backend != nullptr, "no backend");
    if (isFed())
        openFed();
    else
        openUrl();
}

Player::~Player() {
    release();
}

UVABackend::SourceDescription* Player::describe(unsigned int id, const Clip::Track& track) {
    return new FedSource(id, track.info.mimeType, m_habits.fed->duration);
}

void Player::openFed() {
    std::vector<UVABackend::SourceDescription*> sources;
    for (const auto& track : m_habits.fed->tracks) {
        m_sources[++m_lastId] = {&track};
        sources.push_back(describe(m_lastId, track));
    }
    sources.push_back(nullptr);
    const auto init = [&] { return m_backend->initBackend("chaos", sources.data(), false); };
    require(within(atOnce, "initBackend", init) == UVABackend::Success, "sources are refused");
}

void Player::openUrl() {
    UVABackend::SourceDescription* sources[] = {new UrlSource(m_habits.url), nullptr};
    const auto init = [&] { return m_backend->initBackend("chaos", sources, false); };
    require(within(atOnce, "initBackend", init) == UVABackend::Success, "the URL is refused");
}

void Player::play() {
    within(atOnce, "play", [&] { return m_backend->play(); });
}

void Player::pause() {
    within(atOnce, "pause", [&] { return m_backend->pause(); });
}

void Player::seek(double seconds) {
    const int before = count(UVAEvent::SeekCompletedEx);
    const unsigned int askedBefore = seeksAskedFor();
    const auto begin = [&] { return m_backend->setPosition(seconds); };
    const bool begun = within(waitForRequest, "setPosition", begin) == 1;
    require(seeksAskedFor() == askedBefore + (begun ? 1 : 0),
            "a seek that began cancels the requests once, one that did not does not");
    require(count(UVAEvent::SeekCompletedEx) == before + (begun ? 0 : 1),
            "a seek that did not begin has failed, one that did is not over");
}

void Player::releaseResources() {
    {
        const std::lock_guard lock(m_mutex);
        m_question = nullptr; // what it was asked for is gone
    }
    within(atOnce, "releaseResources",
           [&] { return m_backend->releaseResources(UVABackend::AllResources); });
}

void Player::reattach(unsigned int index) {
    if (!isFed())
        return;
    unsigned int old = 0;
    const Clip::Track* track = nullptr;
    {
        const std::lock_guard lock(m_feedMutex);
        auto at = m_sources.begin();
        std::advance(at, index % m_sources.size());
        old = at->first;
        track = at->second.track;
    }
    const bool removed =
        within(atOnce, "removeSource", [&] { return m_backend->removeSource(old); });
    require(removed, "a source that is there cannot be removed");
    m_requests->revoke(old);
    const auto id = ++m_lastId;
    {
        const std::lock_guard lock(m_feedMutex);
        m_sources.erase(old);
        m_sources[id] = {track};
    }
    const auto attach = [&] { return m_backend->attachSource(describe(id, *track)); };
    require(within(waitForRequest, "attachSource", attach) == UVABackend::Success,
            "a source cannot be attached");
}

void Player::runFor(milliseconds time) {
    for (const auto end = std::chrono::steady_clock::now() + time;
         std::chrono::steady_clock::now() < end; chaos::pause(milliseconds(1)))
        step();
}

void Player::release() {
    if (m_isReleased.exchange(true))
        return eventually(atOnce, "a release in an event", [this] { return m_isOver.load(); });
    within(atOnce, "UVA_ReleaseBackend", [&] { return m_library.release(m_backend); });
    m_isOver = true;
    requireEachAnsweredOnce();
}

// ---- what the backend asks for

void Player::deliverEvent(UVAEvent* delivered) {
    const std::shared_ptr<UVAEvent> event(delivered);
    require(!m_isOver, "an event comes after the release");
    if (m_releaseInEvent && isOnMainLoop() && !m_isReleased.exchange(true)) {
        within(atOnce, "UVA_ReleaseBackend in an event",
               [&] { return m_library.release(m_backend); });
        m_isOver = true;
        return;
    }
    Due due{{}, event, 0};
    if (event->type() == UVAEvent::NeedMSEData)
        due.request = m_requests->ask(static_cast<NeedMSEDataEvent&>(*event).sourceId,
                                      std::chrono::steady_clock::now());
    bool now = false;
    {
        const std::lock_guard lock(m_mutex);
        ++m_counts[event->type()];
        if (event->type() == UVAEvent::SeekCompletedEx)
            m_outcome = static_cast<SeekCompletedExEvent&>(*event).outcome;
        const bool isCancel = event->type() == UVAEvent::CancelDataRequestsAsync;
        const bool isQuestion = event->type() == UVAEvent::BackendResourceRequestAsync;
        if (!isCancel && !isQuestion && event->type() != UVAEvent::NeedMSEData)
            return;
        if (isCancel) {
            ++m_seeks;
            m_seekIsPending = true;
            m_target = static_cast<CancelDataRequestsAsyncEvent&>(*event).position;
            m_outcome.reset();
        }
        if (isQuestion) {
            require(m_question == nullptr, "the client is asked again before it has answered");
            m_question = event.get();
            if (m_random.below(16) < m_habits.leavesUnanswered)
                return m_unanswered.push_back(event);
        }
        due.seeks = m_seeks;
        const auto latest = static_cast<unsigned int>(m_habits.latest.count());
        const auto time = milliseconds(m_random.oneIn(2) ? 0 : m_random.below(latest + 1));
        due.time = std::chrono::steady_clock::now() + time;
        now = !isCancel && m_random.oneIn(2); // a seek is made on the host thread
        if (!now)
            m_due.push_back(due);
    }
    if (now)
        answer(due);
}

void Player::step() {
    for (;;) {
        Due due{};
        {
            const std::lock_guard lock(m_mutex);
            const auto at = std::find_if(m_due.begin(), m_due.end(), [](const Due& row) {
                return row.time <= std::chrono::steady_clock::now();
            });
            if (m_isReleased || at == m_due.end())
                return;
            due = *at;
            m_due.erase(at);
        }
        answer(due);
    }
}

void Player::answer(const Due& due) {
    switch (due.event->type()) {
    case UVAEvent::NeedMSEData:
        return feed(due);
    case UVAEvent::CancelDataRequestsAsync:
        return completeSeek(static_cast<const CancelDataRequestsAsyncEvent&>(*due.event));
    default:
        bool grant = false;
        {
            const std::lock_guard lock(m_mutex);
            grant = m_random.below(16) >= m_habits.refuses;
            if (m_question == due.event.get())
                m_question = nullptr;
        }
        within(atOnce, "eventCompleted of a request", [&] {
            return m_backend->eventCompleted(static_cast<const UVAAsyncEvent*>(due.event.get()),
                                             grant);
        });
    }
}

/// The first completion of several makes the seek, to the newest target, the others nothing.
void Player::completeSeek(const CancelDataRequestsAsyncEvent& event) {
    bool makesIt = false;
    double target = 0;
    {
        const std::lock_guard lock(m_mutex);
        makesIt = std::exchange(m_seekIsPending, false);
        target = m_target;
    }
    if (makesIt) {
        const std::lock_guard lock(m_feedMutex);
        for (auto& [id, source] : m_sources) {
            source.next = source.track->keyFrameBefore(target);
            source.start = target;
            source.startDue = true;
        }
        m_requests->revokeAll({}, {}, {}); // late answers are a habit
    }
    const int before = count(UVAEvent::SeekCompletedEx);
    within(atOnce, "eventCompleted of a seek",
           [&] { return m_backend->eventCompleted(&event, true); });
    require(count(UVAEvent::SeekCompletedEx) == before + (makesIt ? 1 : 0),
            "a seek has one outcome, and none is for nothing");
}

unsigned int Player::seeksAskedFor() {
    const std::lock_guard lock(m_mutex);
    return m_seeks;
}

bool Player::isSettled() {
    const std::lock_guard lock(m_mutex);
    return m_due.empty() && !m_seekIsPending;
}

int Player::count(UVAEvent::Type type) {
    const std::lock_guard lock(m_mutex);
    return m_counts[type];
}

std::optional<Outcome> Player::outcome() {
    const std::lock_guard lock(m_mutex);
    return m_outcome;
}

// ---- samples

/// A request from before a seek is void.
void Player::feed(const Due& due) {
    const auto id = static_cast<const NeedMSEDataEvent&>(*due.event).sourceId;
    const std::lock_guard lock(m_feedMutex);
    const auto found = m_sources.find(id);
    if (due.seeks != seeksAskedFor() || found == m_sources.end())
        return;
    found->second.wasAsked = true;
    if (found->second.next < found->second.track->samples.size())
        m_requests->answer(id, due.request);
    feedLocked(id, found->second, 30);
}

/// A source that gets what it has not asked for may ask before it is answered.
void Player::requireEachAnsweredOnce() {
    const auto counts = m_requests->counts();
    require(m_writesUnasked || counts.askedAgain == 0, "a source asks again before it is answered");
    require(m_writesUnasked || counts.unasked == 0, "the client answers what is not open");
}

void Player::writeMore() {
    m_writesUnasked = true;
    const std::lock_guard lock(m_feedMutex);
    for (auto& [id, source] : m_sources)
        if (source.wasAsked)
            feedLocked(id, source, 3);
}

void Player::feedLocked(unsigned int id, Source& source, std::size_t count) {
    const auto write = [&](std::vector<host::SampleData> samples,
                           UVABackend::WriteDataStatus status) {
        auto* const event = new NeedMSEDataEvent(id, 0);
        event->samples = new UVASample* [samples.size() + 1] {};
        std::transform(samples.begin(), samples.end(), event->samples,
                       [](auto& sample) { return new CountedSample(std::move(sample)); });
        m_backend->writeData(event, 0, status);
    };
    if (std::exchange(source.startDue, false)) {
        host::SampleData start;
        start.pts = source.start;
        start.duration = 0;
        write({start}, UVABackend::Data);
    }
    const auto& all = source.track->samples;
    const std::size_t end = std::min(source.next + count, all.size());
    if (source.next < end)
        write({all.begin() + static_cast<std::ptrdiff_t>(source.next),
               all.begin() + static_cast<std::ptrdiff_t>(end)},
              UVABackend::Data);
    if (source.next < all.size() && end == all.size()) {
        m_requests->end(id);
        write({}, UVABackend::EndOfStream);
    }
    source.next = end;
}

// ---- a host thread's walk

void walkWithPlayers(const host::BackendLibrary& library, const std::vector<Player::Habits>& habits,
                     Random random, unsigned int steps) {
    std::vector<std::unique_ptr<Player>> players;
    for (unsigned int i = 0; i < steps; ++i) {
        if (players.size() < 2 && (players.empty() || random.oneIn(4))) {
            const auto& chosen = habits[random.below(static_cast<unsigned int>(habits.size()))];
            players.push_back(std::make_unique<Player>(library, chosen, random.child()));
            players.back()->play();
        }
        const auto at =
            players.begin() +
            static_cast<std::ptrdiff_t>(random.below(static_cast<unsigned int>(players.size())));
        Player& player = **at;
        switch (random.below(8)) {
        case 0:
            player.pause();
            break;
        case 1:
        case 2:
            player.play();
            break;
        case 3:
            player.seek(random.time(1.8));
            break;
        case 4:
            player.reattach(random.below(2));
            break;
        case 5:
            player.releaseResources();
            [[fallthrough]];
        case 6:
            players.erase(at);
            break;
        default:
            break;
        }
        const milliseconds rest(random.below(12));
        for (auto& each : players)
            each->runFor(rest / static_cast<int>(players.size()));
    }
}

} // namespace chaos
