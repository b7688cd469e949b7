#include "player.h"

#include "frame_batch.h"
#include "runtime.h"

#include <chrono>
#include <cmath>
#include <functional>
#include <future>
#include <limits>
#include <optional>
#include <unordered_set>
#include <utility>

namespace uva_native {

namespace {

constexpr auto releaseBound = std::chrono::seconds(10);
constexpr auto captureBound = std::chrono::seconds(5);

/// Work that blocks, away from Node's thread, and a promise of what comes of it.
class Work final : public Napi::AsyncWorker {
public:
    using Task = std::function<void()>;
    using Answer = std::function<Napi::Value(Napi::Env env)>;

    static Napi::Promise start(Napi::Env env, Task task, Answer answer) {
        auto* work = new Work(env, std::move(task), std::move(answer)); // Node's until it is done
        work->Queue();
        return work->m_deferred.Promise();
    }

private:
    Work(Napi::Env env, Task task, Answer answer)
        : AsyncWorker(env), m_task(std::move(task)), m_answer(std::move(answer)),
          m_deferred(Napi::Promise::Deferred::New(env)) {}

    void Execute() override { m_task(); }
    void OnOK() override { m_deferred.Resolve(m_answer(Env())); }
    void OnError(const Napi::Error& error) override { m_deferred.Reject(error.Value()); }

    const Task m_task;
    const Answer m_answer;
    const Napi::Promise::Deferred m_deferred;
};

std::optional<PlayerCore::Kind> kindOf(const std::string& text) {
    if (text == "audio")
        return PlayerCore::Kind::Audio;
    if (text == "video")
        return PlayerCore::Kind::Video;
    return std::nullopt;
}

} // namespace

Napi::Function Player::define(Napi::Env env) {
    return DefineClass(env, "Player",
                       {InstanceMethod<&Player::addTrack>("addTrack"),
                        InstanceMethod<&Player::removeTrack>("removeTrack"),
                        InstanceMethod<&Player::open>("open"),
                        InstanceMethod<&Player::openUrl>("openUrl"),
                        InstanceMethod<&Player::add>("add"),
                        InstanceMethod<&Player::remove>("remove"),
                        InstanceMethod<&Player::setEnded>("setEnded"),
                        InstanceMethod<&Player::setDuration>("setDuration"),
                        InstanceMethod<&Player::setKeySession>("setKeySession"),
                        InstanceMethod<&Player::play>("play"),
                        InstanceMethod<&Player::pause>("pause"),
                        InstanceMethod<&Player::seek>("seek"),
                        InstanceMethod<&Player::setRate>("setRate"),
                        InstanceMethod<&Player::setVolume>("setVolume"),
                        InstanceMethod<&Player::resume>("resume"),
                        InstanceAccessor<&Player::position>("position"),
                        InstanceMethod<&Player::counters>("counters"),
                        InstanceMethod<&Player::capture>("capture"),
                        InstanceMethod<&Player::describe>("describe"),
                        InstanceMethod<&Player::release>("release")});
}

Player::Player(const Napi::CallbackInfo& info) : ObjectWrap(info) {
    const auto callback = Arguments(info, "Player").function(0, "callback");
    const auto& runtime = Runtime::instance();
    if (runtime.library() == nullptr)
        throw Napi::Error::New(info.Env(), runtime.error());
    m_events = std::make_shared<EventQueue>(info.Env(), callback);
    m_core = std::make_shared<PlayerCore>(m_events);
    napi_add_env_cleanup_hook(info.Env(), environmentEnds, this);
}

Player::~Player() {
    if (m_core != nullptr) {
        napi_remove_env_cleanup_hook(Env(), environmentEnds, this);
        m_events->close();
    }
}

/// The process or the worker ends with the player open. The function that it told is gone soon.
void Player::environmentEnds(void* player) {
    auto& self = *static_cast<Player*>(player);
    self.m_events->close();
    self.m_core->release(releaseBound);
    self.m_core.reset();
}

PlayerCore& Player::core(const Arguments& arguments) const {
    if (m_core == nullptr)
        arguments.failType("the player has been released");
    return *m_core;
}

host::TrackBuffer& Player::buffer(const Arguments& arguments, std::size_t index) const {
    const auto track = arguments.count(index, "track");
    auto* const buffer = track <= std::numeric_limits<host::SourceId>::max()
                             ? core(arguments).buffer(static_cast<host::SourceId>(track))
                             : nullptr;
    if (buffer == nullptr)
        arguments.failRange("there is no track " + std::to_string(track));
    return *buffer;
}

Napi::Value Player::addTrack(const Info& info) {
    const Arguments arguments(info, "Player.addTrack");
    const auto kind = kindOf(arguments.text(0, "kind"));
    const auto mimeType = arguments.text(1, "mimeType");
    if (!kind)
        arguments.failType("kind must be \"audio\" or \"video\"");
    if (mimeType.empty())
        arguments.failType("mimeType must not be empty");
    return Napi::Number::New(info.Env(), core(arguments).addTrack(*kind, mimeType));
}

void Player::removeTrack(const Info& info) {
    const Arguments arguments(info, "Player.removeTrack");
    buffer(arguments, 0);
    core(arguments).removeTrack(static_cast<host::SourceId>(arguments.count(0, "track")));
}

void Player::openOnce(const Arguments& arguments) {
    if (std::exchange(m_isOpen, true))
        arguments.failType("the player has been opened; make another one");
}

void Player::open(const Info& info) {
    const Arguments arguments(info, "Player.open");
    auto& player = core(arguments);
    const auto options = arguments.object(0, "options");
    const double start = arguments.seconds(options.Get("start"), "start");
    const double duration = arguments.seconds(options.Get("duration"), "duration");
    const auto session = arguments.count(options.Get("session"), "session");
    openOnce(arguments);
    player.open(start, duration, session);
}

void Player::openUrl(const Info& info) {
    const Arguments arguments(info, "Player.openUrl");
    auto& player = core(arguments);
    auto url = arguments.text(0, "url");
    if (url.empty())
        arguments.failType("url must not be empty");
    openOnce(arguments);
    player.element().open(std::move(url));
}

void Player::add(const Info& info) {
    const Arguments arguments(info, "Player.add");
    auto& track = buffer(arguments, 0);
    auto* const batch = FrameBatch::of(info[1]);
    if (batch == nullptr)
        arguments.failType("batch must be one that a parser gave");
    const auto indices = arguments.indices(2, "indices");
    const auto pts = arguments.numbers(3, "pts");
    const auto dts = arguments.numbers(4, "dts");
    const auto sequence = arguments.numbers(5, "sequence");
    const auto group = arguments.numbers(6, "group");
    const auto count = indices.size;
    if (pts.size != count || dts.size != count || sequence.size != count || group.size != count)
        arguments.failRange("indices, pts, dts, sequence and group must be of one length");
    std::unordered_set<std::uint32_t> used;
    for (std::size_t i = 0; i < count; ++i) {
        if (!batch->has(indices[i]) || !used.insert(indices[i]).second)
            arguments.failRange("the batch has no frame " + std::to_string(indices[i]) +
                                " that was not added before");
        if (!std::isfinite(pts[i]) || !std::isfinite(dts[i]))
            arguments.failRange("pts and dts must be finite");
        for (const double number : {sequence[i], group[i]})
            arguments.count(Napi::Number::New(info.Env(), number), "sequence and group");
    }
    std::vector<host::BufferedFrame> frames(count);
    for (std::size_t i = 0; i < count; ++i) {
        auto& frame = frames[i];
        frame.sequence = static_cast<std::uint64_t>(sequence[i]);
        frame.group = static_cast<std::uint64_t>(group[i]);
        frame.sample = batch->take(indices[i]);
        frame.sample.pts = pts[i];
        frame.sample.dts = dts[i];
    }
    track.add(std::move(frames));
}

void Player::remove(const Info& info) {
    const Arguments arguments(info, "Player.remove");
    auto& track = buffer(arguments, 0);
    std::vector<std::uint64_t> sequences;
    for (const double number : arguments.numbers(1, "sequence"))
        sequences.push_back(arguments.count(Napi::Number::New(info.Env(), number), "sequence"));
    track.remove(sequences);
}

void Player::setEnded(const Info& info) {
    const Arguments arguments(info, "Player.setEnded");
    core(arguments).setEnded(arguments.boolean(0, "ended"));
}

void Player::setDuration(const Info& info) {
    const Arguments arguments(info, "Player.setDuration");
    core(arguments).element().setDuration(arguments.seconds(0, "duration"));
}

void Player::setKeySession(const Info& info) {
    const Arguments arguments(info, "Player.setKeySession");
    core(arguments).setKeySession(arguments.count(0, "session"));
}

void Player::play(const Info& info) {
    core({info, "Player.play"}).element().play();
}

void Player::pause(const Info& info) {
    core({info, "Player.pause"}).element().pause();
}

Napi::Value Player::seek(const Info& info) {
    const Arguments arguments(info, "Player.seek");
    const auto generation = core(arguments).element().seek(arguments.seconds(0, "time"));
    return Napi::Number::New(info.Env(), static_cast<double>(generation));
}

Napi::Value Player::setRate(const Info& info) {
    const Arguments arguments(info, "Player.setRate");
    return Napi::Boolean::New(info.Env(),
                              core(arguments).element().setRate(arguments.number(0, "rate")));
}

void Player::setVolume(const Info& info) {
    const Arguments arguments(info, "Player.setVolume");
    const double volume = arguments.number(0, "volume");
    if (volume < 0 || volume > 1)
        arguments.failRange("volume must be 0 to 1");
    core(arguments).element().setVolume(volume);
}

void Player::resume(const Info& info) {
    core({info, "Player.resume"}).element().resumeFeeding();
}

Napi::Value Player::position(const Info& info) {
    return Napi::Number::New(info.Env(), core({info, "Player.position"}).element().position());
}

Napi::Value Player::counters(const Info& info) {
    const auto counted = core({info, "Player.counters"}).element().counters();
    auto object = Napi::Object::New(info.Env());
    object.Set("shown", static_cast<double>(counted.shown));
    object.Set("dropped", static_cast<double>(counted.dropped));
    object.Set("corrupted", static_cast<double>(counted.corrupted));
    return object;
}

Napi::Value Player::capture(const Info& info) {
    auto answer = core({info, "Player.capture"}).element().capture().share();
    return Work::start(
        info.Env(), [answer] { answer.wait_for(captureBound); },
        [answer](Napi::Env env) -> Napi::Value {
            if (answer.wait_for(std::chrono::seconds(0)) != std::future_status::ready ||
                !answer.get().error.empty())
                return env.Null();
            const auto& picture = answer.get().picture;
            auto object = Napi::Object::New(env);
            object.Set("width", picture.width);
            object.Set("height", picture.height);
            object.Set("rgba", Napi::Buffer<std::uint8_t>::Copy(env, picture.rgba.data(),
                                                                picture.rgba.size()));
            return object;
        });
}

Napi::Value Player::describe(const Info& info) {
    return Napi::String::New(info.Env(), core({info, "Player.describe"}).describe());
}

/// Resolves once the backend has been handed back; true, or false when it hangs.
Napi::Value Player::release(const Info& info) {
    const auto released = std::make_shared<bool>(true);
    auto core = std::exchange(m_core, nullptr);
    if (core != nullptr) {
        napi_remove_env_cleanup_hook(info.Env(), environmentEnds, this);
        m_events->close();
    }
    return Work::start(
        info.Env(),
        [core, released] {
            if (core != nullptr)
                *released = core->release(releaseBound);
        },
        [released](Napi::Env env) { return Napi::Boolean::New(env, *released); });
}

} // namespace uva_native
