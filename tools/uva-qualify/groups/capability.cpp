#include "clip_player.h"
#include "groups/groups.h"
#include "groups/pictures.h"
#include "host/capability_query.h"
#include "uva/uva_client.h"
#include "uva/uva_event.h"

#include <algorithm>
#include <future>
#include <iterator>

namespace qualify {

namespace {

/// A question is no playback: what the backend has to tell is of no interest.
class DeafClient final : public UVAClient {
public:
    void deliverEvent(UVAEvent* event) override { delete event; }
};

/// On the thread to which backends belong.
template <typename Answer>
std::optional<Answer> askBackend(Stage& stage, std::function<Answer(UVAMediaBackend&)> question) {
    std::promise<std::optional<Answer>> promise;
    auto answer = promise.get_future();
    stage.loop->post([&] {
        DeafClient client;
        auto* const backend = stage.library->request(UVABackend::VideoElement, &client);
        promise.set_value(backend == nullptr ? std::nullopt : std::optional(question(*backend)));
        if (backend != nullptr)
            stage.library->release(backend);
    });
    return answer.get();
}

using Types = std::vector<std::string>;

/// Those that the backend promises to play.
Types promisedOf(UVAMediaBackend& backend, const Types& types) {
    Types promised;
    std::copy_if(types.begin(), types.end(), std::back_inserter(promised), [&](const auto& type) {
        const auto content = host::parseContentType(type);
        return content && backend.canPlayType(*content);
    });
    return promised;
}

Types promisedOf(Stage& stage, const Types& types) {
    const auto promised = askBackend<Types>(
        stage, [&](UVAMediaBackend& backend) { return promisedOf(backend, types); });
    return promised.value_or(Types());
}

bool holds(const Types& types, const std::string& type) {
    return std::find(types.begin(), types.end(), type) != types.end();
}

/// "a, b, c and 12 more".
std::string inWords(const Types& types) {
    constexpr std::size_t most = 5;
    std::string text;
    for (std::size_t i = 0; i < std::min(most, types.size()); ++i)
        text += (text.empty() ? "" : "; ") + types[i];
    return types.size() > most ? text + " and " + std::to_string(types.size() - most) + " more"
                               : text;
}

// ---- what is promised against what plays

/// Why its pictures, or its sound, do not come out; empty: they do.
std::string whyNotPlayed(Stage& stage, const Clip& clip) {
    constexpr int somePictures = 3;
    Player player(stage, {host::ResourcePolicy::Grant, true, 0});
    player.open(clip);
    player.play();
    const auto comesOut = [&] {
        if (clip.pictures == 0)
            return player.element().position() > 0.2 &&
                   (!stage.observation->isExact() || !player.watch().pulses()->empty());
        const auto& pictures = player.watch().pictures();
        return std::count_if(pictures.begin(), pictures.end(), [&](const auto& picture) {
                   return picture.mark && picture.mark->clip == clip.mark;
               }) >= somePictures;
    };
    waitUntil([&] { return comesOut() || player.isFailed(); });
    return comesOut() ? ""
                      : player.story() + " at " + plainNumber(player.element().position()) +
                            " s, pictures: " + std::to_string(player.watch().pictures().size());
}

/// What is said of a clip's types, against whether it plays. A type that asks for more than the
/// clip shows may be refused all the same.
void holdAgainstPlayback(Stage& stage, Findings& findings) {
    Types all, broken, hidden, explained;
    std::size_t number = 0, clips = 0, types = 0;
    for (const auto& clip : stage.clips.all())
        for (const auto& asked : clip.types)
            all.push_back(asked.type);
    const auto promised = promisedOf(stage, all);
    for (const auto& clip : stage.clips.all()) {
        constexpr std::size_t shortShare = 3;
        if (clip.types.empty() || (++number % shortShare != 0 && stage.isShort()))
            continue;
        ++clips;
        types += clip.types.size();
        const auto why = whyNotPlayed(stage, clip);
        bool isExplained = false;
        for (const auto& asked : clip.types) {
            const bool isPromised = holds(promised, asked.type);
            const auto text = clip.name + ", " + asked.type;
            if (isPromised && !why.empty())
                broken.push_back(text + ": " + why);
            else if (!isPromised && why.empty() && !asked.more && clip.unpromised.empty())
                hidden.push_back(text);
            else if (!isPromised && why.empty() && !asked.more)
                isExplained = true;
        }
        if (isExplained)
            explained.push_back(clip.name + " (" + clip.unpromised + ")");
    }
    const auto of = "of " + std::to_string(types) + " types of " + std::to_string(clips) + " clips";
    findings.measure("plays what it says", static_cast<double>(broken.size()),
                     broken.empty() ? of : inWords(broken));
    findings.measure("says what it plays", static_cast<double>(hidden.size()),
                     !hidden.empty()     ? inWords(hidden)
                     : explained.empty() ? of
                                         : of + "; refused for a reason: " + inWords(explained));
}

// ---- what answers say of one another

void askForItsOwnList(Stage& stage, Findings& findings) {
    const auto list = askBackend<Types>(
        stage, [](UVAMediaBackend& backend) { return host::supportedTypes(backend); });
    if (!list || list->empty())
        return findings.fail("its own list", "the backend names no types");
    const auto promised = promisedOf(stage, *list);
    Types refused;
    std::copy_if(list->begin(), list->end(), std::back_inserter(refused),
                 [&](const auto& type) { return !holds(promised, type); });
    findings.measure("its own list", static_cast<double>(refused.size()),
                     refused.empty() ? "of " + std::to_string(list->size()) : inWords(refused));
}

void askForNonsense(Stage& stage, Findings& findings) {
    const Types nonsense = {
        "text/html",
        "image/png",
        "video/nothing",
        "audio/nothing",
        "application/octet-stream",
        "video/mp4; codecs=\"nothing\"",
        "video/mp4; codecs=\"avc1.640028,nothing\"",
        "video/mp4; codecs=\"avc9.640028\"",
        "video/webm; codecs=\"vp7\"",
        "audio/mp4; codecs=\"mp4z.40.2\"",
        "video/mp4; codecs=\"avc1.640028\"; width=wide",
        "video/mp4; codecs=\"avc1.640028\"; framerate=often",
        "video/mp4; codecs=\"avc1.640028\"; width=1000000; height=1000000",
    };
    const auto promised = promisedOf(stage, nonsense);
    findings.measure("nonsense", static_cast<double>(promised.size()),
                     promised.empty() ? "of " + std::to_string(nonsense.size())
                                      : inWords(promised));
}

/// A kind of video at one of several sizes and rates; who plays the larger plays the smaller.
void askForSizes(Stage& stage, Findings& findings) {
    static constexpr const char* containers[] = {"video/mp4", "video/webm", "video/x-matroska"};
    static constexpr const char* codecs[] = {
        "avc1.42e01e",      "avc1.4d401f",      "avc1.640028",   "avc1.640033",   "hvc1.1.6.L93.B0",
        "hev1.1.6.L120.B0", "hvc1.2.4.L153.B0", "vp8",           "vp09.00.10.08", "vp09.00.51.08",
        "vp09.02.51.10",    "av01.0.04M.08",    "av01.0.12M.10", "mp4v.20.8"};
    static constexpr const char* sizes[] = {
        "; width=320; height=180",   "; width=640; height=360",   "; width=1280; height=720",
        "; width=1920; height=1080", "; width=3840; height=2160", "; width=7680; height=4320"};
    static constexpr const char* rates[] = {"; framerate=24", "; framerate=30", "; framerate=60"};
    const auto typeOf = [](const char* container, const char* codec, std::size_t size,
                           std::size_t rate) {
        return std::string(container) + "; codecs=\"" + codec + "\"" + sizes[size] + rates[rate];
    };
    Types all, refused;
    for (const auto* container : containers)
        for (const auto* codec : codecs)
            for (std::size_t size = 0; size < std::size(sizes); ++size)
                for (std::size_t rate = 0; rate < std::size(rates); ++rate)
                    all.push_back(typeOf(container, codec, size, rate));
    const auto promised = promisedOf(stage, all);
    for (const auto* container : containers)
        for (const auto* codec : codecs)
            for (std::size_t size = 0; size < std::size(sizes); ++size)
                for (std::size_t rate = 0; rate < std::size(rates); ++rate) {
                    const bool larger =
                        (size + 1 < std::size(sizes) &&
                         holds(promised, typeOf(container, codec, size + 1, rate))) ||
                        (rate + 1 < std::size(rates) &&
                         holds(promised, typeOf(container, codec, size, rate + 1)));
                    const auto type = typeOf(container, codec, size, rate);
                    if (larger && !holds(promised, type))
                        refused.push_back(type);
                }
    findings.measure("sizes", static_cast<double>(refused.size()),
                     refused.empty() ? "of " + std::to_string(all.size()) + " types, " +
                                           std::to_string(promised.size()) + " promised"
                                     : inWords(refused));
}

} // namespace

void checkCapability(Stage& stage, Findings& findings) {
    askForItsOwnList(stage, findings);
    askForNonsense(stage, findings);
    askForSizes(stage, findings);
    holdAgainstPlayback(stage, findings);
}

} // namespace qualify
