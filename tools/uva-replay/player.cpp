#include "player.h"

#include "argument_writer.h"
#include "host/backend_library.h"
#include "made_call.h"
#include "recorded_sample.h"
#include "uva/uva_client.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <iterator>
#include <set>
#include <tuple>

namespace replay {

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr milliseconds late{20}; // beyond it a step has been waited for

UVAEvent::Type typeOf(const Entry& event) {
    return static_cast<UVAEvent::Type>(event.code);
}

bool isWaitedFor(const Entry& event) {
    return record::rowOf(typeOf(event)).order != record::Order::Free;
}

bool isAnswered(const UVAEvent& event) {
    return event.type() == UVAEvent::NeedMSEData ||
           dynamic_cast<const UVAAsyncEvent*>(&event) != nullptr;
}

/// Whether it completes a seek.
bool isSeek(const Call& answer) {
    return answer.event != nullptr && typeOf(*answer.event) == UVAEvent::CancelDataRequestsAsync;
}

/// Whether it hands over samples from before a seek, and came before that was completed.
bool isVoidBefore(const Call& answer, const Call& seek) {
    return answer.isVoid && answer.entry->object == seek.entry->object &&
           answer.position < seek.position;
}

/// An event of the host's own.
std::unique_ptr<UVAEvent> requestOf(const Call& writeData) {
    const auto& values = writeData.entry->values;
    if (values.empty() || values[0].items.size() != 3)
        return nullptr;
    return std::make_unique<NeedMSEDataEvent>(static_cast<unsigned int>(values[0].items[1].integer),
                                              static_cast<int>(values[0].items[2].integer));
}

/// What the recorder would note of the event, but for numbers.
record::Values membersOf(const UVAEvent& event) {
    const record::Identities nobody;
    record::Encoder encoder;
    record::ArgumentWriter arguments(encoder, nobody);
    record::putMembers(event, encoder, arguments);
    record::Values values;
    std::size_t offset = 0;
    const char* reason = "";
    record::decode(encoder.data(), encoder.size(), values, offset, reason);
    return values;
}

} // namespace

/// A backend that is played to, and its client.
class Player::Element final : public UVAClient, public Objects {
public:
    Element(Player& owner, std::uint32_t name) : player(owner), number(name) {}

    void deliverEvent(UVAEvent* event) override {
        player.deliver(*this, std::unique_ptr<UVAEvent>(event));
    }

    UVABackend::AVComponent* component(std::uint32_t recorded) override {
        const MutexLock lock(player.m_mutex);
        const auto found = components.find(recorded);
        return found != components.end() ? found->second : nullptr;
    }
    UVABackend::AVComponent* ownComponent(const record::Value& value) override {
        const auto text = [&](std::size_t i) {
            return i < value.items.size() ? value.items[i].text.c_str() : "";
        };
        const int type = value.items.size() > 1 ? static_cast<int>(value.items[1].integer) : 0;
        m_own.push_back(std::make_unique<UVABackend::AVComponent>(type, text(2), text(3), text(4)));
        return m_own.back().get();
    }
    /// A file that is not there is looked for by its name.
    std::string url(const std::string& recorded) const override {
        constexpr std::string_view file = "file://";
        const auto& folder = player.m_pace.media;
        if (folder.empty() || recorded.compare(0, file.size(), file) != 0 ||
            std::filesystem::exists(recorded.substr(file.size())))
            return recorded;
        const auto name = std::filesystem::path(recorded).filename();
        return std::string(file) + std::filesystem::absolute(folder / name).string();
    }

    Player& player;
    const std::uint32_t number; ///< as it was recorded
    std::atomic<UVAMediaBackend*> backend{nullptr};
    // Under the player's mutex.
    std::map<std::int64_t, std::deque<Waiting>> requests; ///< for samples, by source
    std::map<std::int64_t, std::deque<Waiting>> voids;    ///< a seek has come in between
    std::map<const Entry*, Waiting> questions;            ///< by the recorded event
    std::vector<std::unique_ptr<UVAEvent>> strays;        ///< that the record has no answer for
    std::map<std::uint32_t, UVABackend::AVComponent*> components;

private:
    std::vector<std::unique_ptr<UVABackend::AVComponent>> m_own;
};

/// A call of the library's, for as long as it takes.
class Player::UnderWay {
public:
    UnderWay(Player& player, const Call& call) : m_player(player), m_call(call) {
        const MutexLock lock(m_player.m_mutex);
        m_player.m_underWay[&m_call] = Clock::now();
    }
    ~UnderWay() {
        const MutexLock lock(m_player.m_mutex);
        m_player.m_underWay.erase(&m_call);
    }
    UnderWay(const UnderWay&) = delete;
    UnderWay& operator=(const UnderWay&) = delete;

private:
    Player& m_player;
    const Call& m_call;
};

Player::Player(const Script& script, const host::BackendLibrary& library, Pace pace, Tell tell)
    : m_script(script), m_library(library), m_pace(std::move(pace)), m_tell(std::move(tell)) {
    for (const auto& step : script.steps)
        if (step.inside != nullptr)
            m_stepsInside[step.inside].push_back(&step);
    m_endEntry.time = script.duration;
    m_end.entry = &m_endEntry;
    m_end.position = ~std::size_t{0};
    const MutexLock lock(m_mutex);
    for (const auto& answer : script.answers)
        m_answers.push_back(&answer);
    for (const auto& event : script.events) {
        m_expected[{event.entry->object, event.entry->code}].push_back(&event);
        if (isWaitedFor(*event.entry))
            m_awaited[event.position] = &event;
    }
}

Player::~Player() = default;

void Player::run() {
    {
        const MutexLock lock(m_mutex);
        m_begin = m_current = Clock::now();
    }
    for (;;) {
        const Call* step = &m_end;
        {
            const MutexLock lock(m_mutex);
            if (m_next < m_script.steps.size())
                step = &m_script.steps[m_next];
        }
        if (turn(*step) && step == &m_end)
            break;
    }
    releaseAll();
}

std::string Player::hangingCall() const {
    const MutexLock lock(m_mutex);
    for (const auto& [call, since] : m_underWay) {
        const nanoseconds took(call->answer != nullptr ? call->answer->time - call->entry->time
                                                       : 0);
        if (Clock::now() - since > took + m_pace.patience)
            return record::nameOf(*call->entry);
    }
    return {};
}

// ---- the host's thread

/// Makes the step if it is its time, else an answer, or waits for either. True once the step has
/// been made, here or inside an event.
bool Player::turn(const Call& step) {
    Answer due;
    bool isMade = false;
    {
        MutexLock lock(m_mutex);
        const bool isEnd = &step == &m_end;
        if (!isEnd && &m_script.steps[m_next] != &step)
            return true;
        const auto now = Clock::now();
        auto next = now + milliseconds(200);
        due = takeDueAnswer(now, next);
        const auto time =
            m_pace.fast ? m_current : std::max(m_current, m_begin + nanoseconds(step.entry->time));
        const bool isTime = due.call == nullptr && now >= time;
        const auto missing = isTime ? missingFor(step) : std::string();
        const std::uint64_t before = m_next > 0 ? m_script.steps[m_next - 1].entry->time : 0;
        const nanoseconds gap(m_pace.fast ? step.entry->time - std::min(before, step.entry->time)
                                          : 0);
        const bool isOverdue = !missing.empty() && now >= time + gap + m_pace.patience;
        if (isOverdue) {
            m_tell((isEnd ? "at the end" : "before " + record::nameOf(*step.entry)) +
                   ": waited in vain for " + missing);
            forgetMissing(step);
        }
        isMade = isTime && (missing.empty() || isOverdue);
        if (isMade && !isEnd)
            begin(step);
        if (due.call == nullptr && !isMade) {
            m_changed.waitUntil(m_mutex, now < time ? std::min(next, time) : next);
            return false;
        }
    }
    if (due.call != nullptr) {
        answer(due);
        keepForMore(std::move(due), false);
    } else if (&step != &m_end) {
        make(step);
    }
    return isMade;
}

/// What was waited for moves all that follows.
void Player::begin(const Call& step) {
    ++m_next;
    m_changed.broadcast();
    const auto now = Clock::now();
    const auto meant = m_begin + nanoseconds(step.entry->time);
    if (now > meant + late)
        m_begin = now - nanoseconds(step.entry->time);
    m_current = now;
}

bool Player::isBefore(const Call& step, std::uint32_t object, std::size_t position) const {
    return position < step.position && (&step == &m_end || object == step.entry->object);
}

/// What came before the step and has not come yet; empty: all has.
std::string Player::missingFor(const Call& step) const {
    if (&step != &m_end && isQuery(step.operation()))
        return {};
    for (const auto& [position, event] : m_awaited)
        if (isBefore(step, event->entry->object, position))
            return record::nameOf(*event->entry);
    for (const auto* answer : m_answers)
        if (!answer->isVoid && isBefore(step, answer->entry->object, answer->position))
            return answer->operation() == Operation::writeData
                       ? "a request for samples of source " + std::to_string(answer->source)
                       : "what " + record::nameOf(*answer->entry) + " answers";
    return step.inside != nullptr ? "its turn inside " + record::nameOf(*step.inside)
                                  : std::string();
}

void Player::forgetMissing(const Call& step) {
    for (auto at = m_awaited.begin(); at != m_awaited.end();)
        at = isBefore(step, at->second->entry->object, at->first) ? m_awaited.erase(at)
                                                                  : std::next(at);
    const auto isMissing = [&](const Call* answer) {
        return isBefore(step, answer->entry->object, answer->position);
    };
    m_answers.erase(std::remove_if(m_answers.begin(), m_answers.end(), isMissing), m_answers.end());
}

// ---- answers

/// The event that the answer is for; null: it has not come.
Player::Waiting* Player::waitingFor(const Call& answer) {
    const auto found = m_elements.find(answer.entry->object);
    if (found == m_elements.end())
        return nullptr;
    Element& element = *found->second;
    if (answer.operation() == Operation::eventCompleted) {
        const auto question = element.questions.find(answer.event);
        return question != element.questions.end() ? &question->second : nullptr;
    }
    auto& queue = (answer.isVoid ? element.voids : element.requests)[answer.source];
    return queue.empty() ? nullptr : &queue.front();
}

/// Takes the first answer that may be made and is wanted, with its event. Those to one source keep
/// their order.
template <typename IsWanted>
Player::Answer Player::takeAnswer(IsWanted isWanted) {
    std::set<std::tuple<std::uint32_t, std::int64_t, bool>> sources;
    for (auto at = m_answers.begin(); at != m_answers.end() && (*at)->after <= m_next; ++at) {
        const Call& call = **at;
        const bool isData = call.operation() == Operation::writeData;
        if (isData && !sources.emplace(call.entry->object, call.source, call.isVoid).second)
            continue;
        Waiting* const waiting = waitingFor(call);
        if (waiting == nullptr || waitsForVoid(call) || !isWanted(call, *waiting))
            continue;
        Answer answer{&call, std::move(*waiting)};
        Element& element = *m_elements[call.entry->object];
        if (isData)
            (call.isVoid ? element.voids : element.requests)[call.source].pop_front();
        else
            element.questions.erase(call.event);
        m_answers.erase(at);
        forgetVoid(call);
        return answer;
    }
    return {};
}

/// Samples from before a seek would belong behind it once it is completed.
bool Player::waitsForVoid(const Call& answer) {
    if (answer.inside != nullptr || !isSeek(answer))
        return false;
    for (const auto* one : m_answers)
        if (isVoidBefore(*one, answer) && waitingFor(*one) != nullptr)
            return true;
    return false;
}

/// What nobody has asked for before the seek comes no more.
void Player::forgetVoid(const Call& answer) {
    const auto isLate = [&](const Call* one) { return isVoidBefore(*one, answer); };
    if (isSeek(answer))
        m_answers.erase(std::remove_if(m_answers.begin(), m_answers.end(), isLate),
                        m_answers.end());
}

/// One whose time has come; else `next` is moved to when one's will have.
Player::Answer Player::takeDueAnswer(Clock::time_point now, Clock::time_point& next) {
    return takeAnswer([&](const Call& call, const Waiting& waiting) {
        const nanoseconds took(call.entry->time - call.event->time);
        const auto time = m_pace.fast ? now : waiting.since + took;
        if (time > now)
            next = std::min(next, time);
        return time <= now;
    });
}

/// The library has its request for samples then; any other event is still here.
void Player::answer(Answer& answer) {
    const Call& call = *answer.call;
    Element& element = elementOf(call.entry->object);
    UVAMediaBackend* const backend = element.backend;
    if (backend == nullptr)
        return;
    const UnderWay underWay(*this, call);
    if (call.operation() == Operation::writeData)
        return write(*backend, call, std::move(answer.waiting.event));
    const bool granted =
        call.entry->values.size() > 1 && call.entry->values[1].tag == record::Tag::True;
    backend->eventCompleted(static_cast<UVAAsyncEvent*>(answer.waiting.event.get()), granted);
}

/// A host may answer an event twice: it stays until the last answer. Of those that are made inside
/// its delivery the next one is returned.
Player::Answer Player::keepForMore(Answer answered, bool isInside) {
    const MutexLock lock(m_mutex);
    const Entry* const event = answered.call->event;
    const auto isToIt = [event](const Call* call) { return call->event == event; };
    if (std::none_of(m_answers.begin(), m_answers.end(), isToIt))
        return {};
    m_elements[answered.call->entry->object]->questions[event] = std::move(answered.waiting);
    m_changed.broadcast();
    if (!isInside)
        return {};
    return takeAnswer(
        [&](const Call& call, const Waiting&) { return isToIt(&call) && call.inside != nullptr; });
}

void Player::write(UVAMediaBackend& backend, const Call& call, std::unique_ptr<UVAEvent> event) {
    if (event != nullptr && !call.samples.empty()) {
        auto& request = static_cast<NeedMSEDataEvent&>(*event);
        request.samples = new UVASample* [call.samples.size() + 1] {};
        for (std::size_t i = 0; i < call.samples.size(); ++i)
            request.samples[i] =
                new RecordedSample(*call.samples[i], m_script, config(configOf(*call.samples[i])));
    }
    const auto& values = call.entry->values;
    const auto number = [&](std::size_t i) { return i < values.size() ? values[i].integer : 0; };
    backend.writeData(event.release(), static_cast<unsigned int>(number(1)),
                      static_cast<UVABackend::WriteDataStatus>(number(2)));
}

std::shared_ptr<const UVAStreamConfig> Player::config(std::uint32_t number) {
    const MutexLock lock(m_mutex);
    auto& known = m_configs[number];
    const auto entry = m_script.configs.find(number);
    if (known == nullptr && entry != m_script.configs.end())
        known = std::make_shared<const RecordedConfig>(*entry->second);
    return known;
}

// ---- steps

void Player::make(const Call& step) {
    Element& element = elementOf(step.entry->object);
    const UnderWay underWay(*this, step);
    const auto& values = step.entry->values;
    std::string error;
    if (step.operation() == Operation::requestBackend)
        element.backend = m_library.request(
            static_cast<UVABackend::UVABackendType>(values.empty() ? 0 : values[0].integer),
            &element);
    else if (element.backend == nullptr)
        error =
            record::nameOf(*step.entry) + ": there is no backend " + std::to_string(element.number);
    else if (step.operation() == Operation::releaseBackend)
        m_library.release(element.backend.exchange(nullptr));
    else if (step.operation() == Operation::writeData)
        write(*element.backend.load(), step, requestOf(step));
    else
        error = makeCall(step, *element.backend.load(), element);
    if (!error.empty())
        m_tell(error);
}

void Player::releaseAll() {
    std::vector<Element*> elements;
    {
        const MutexLock lock(m_mutex);
        for (const auto& [number, element] : m_elements)
            elements.push_back(element.get());
    }
    for (auto* element : elements)
        if (element->backend != nullptr)
            m_library.release(element->backend.exchange(nullptr));
}

Player::Element& Player::elementOf(std::uint32_t number) {
    const MutexLock lock(m_mutex);
    auto& element = m_elements[number];
    if (element == nullptr)
        element = std::make_unique<Element>(*this, number);
    return *element;
}

// ---- the threads that deliver

void Player::deliver(Element& element, std::unique_ptr<UVAEvent> event) {
    if (event == nullptr)
        return;
    const Event* recorded = nullptr;
    Answer inside;
    {
        const MutexLock lock(m_mutex);
        recorded = match(element, *event);
        if (recorded != nullptr)
            m_awaited.erase(recorded->position);
        if (event->type() == UVAEvent::CancelDataRequestsAsync)
            for (auto& [source, requests] : element.requests)
                std::move(requests.begin(), requests.end(),
                          std::back_inserter(element.voids[source]));
        if (event->type() == UVAEvent::CancelDataRequestsAsync)
            element.requests.clear();
        const UVAEvent* const name = event.get();
        if (isAnswered(*event))
            keep(element, recorded, std::move(event));
        inside = takeAnswer([&](const Call& call, const Waiting& waiting) {
            return waiting.event.get() == name && call.inside != nullptr;
        });
        m_changed.broadcast();
    }
    while (inside.call != nullptr) {
        answer(inside);
        inside = keepForMore(std::move(inside), true);
    }
    if (recorded != nullptr)
        makeStepsInside(*recorded);
}

/// Until it is answered.
void Player::keep(Element& element, const Event* recorded, std::unique_ptr<UVAEvent> event) {
    if (event->type() == UVAEvent::NeedMSEData) {
        const auto source = static_cast<const NeedMSEDataEvent&>(*event).sourceId;
        element.requests[source].push_back({std::move(event), Clock::now()});
    } else if (recorded != nullptr) {
        element.questions[recorded->entry] = {std::move(event), Clock::now()};
    } else {
        element.strays.push_back(std::move(event));
    }
}

/// Which of the record's events it is: one that says the same, else the first of its type.
const Event* Player::match(Element& element, const UVAEvent& event) {
    auto& expected = m_expected[{element.number, static_cast<std::uint16_t>(event.type())}];
    if (expected.empty())
        return nullptr;
    const auto members = membersOf(event);
    auto found = std::find_if(expected.begin(), expected.end(), [&](const Event* candidate) {
        return alike(candidate->entry->values, members);
    });
    if (found == expected.end())
        found = expected.begin();
    const Event* const recorded = *found;
    expected.erase(found);
    if (const auto added = m_script.added.find(recorded->entry->number);
        added != m_script.added.end()) {
        const auto& components = static_cast<const MultiComponentChangedEvent&>(event).added;
        for (std::size_t i = 0; i < std::min(components.size(), added->second.size()); ++i)
            element.components[added->second[i]] = components[i];
    }
    return recorded;
}

/// Each when its turn has come; one whose turn does not come is made by the host's thread.
void Player::makeStepsInside(const Event& event) {
    const auto steps = m_stepsInside.find(event.entry);
    if (steps == m_stepsInside.end())
        return;
    const auto deadline = Clock::now() + m_pace.patience / 2;
    for (const auto* step : steps->second) {
        {
            const MutexLock lock(m_mutex);
            const auto place = static_cast<std::size_t>(step - m_script.steps.data());
            while (m_next < place && Clock::now() < deadline)
                m_changed.waitUntil(m_mutex, deadline);
            if (m_next != place)
                return;
            begin(*step);
        }
        make(*step);
    }
}

} // namespace replay
