#include "scenarios.h"

#include "set.h"
#include "support/recording_sink.h"
#include "support/sink_watch.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <thread>

namespace chaos {

namespace {

using Outcome = SeekCompletedExEvent::SeekOutcome;
using Threads = std::vector<std::thread>;

constexpr double frame = 0.04; // seconds
constexpr milliseconds atOnce{0};

void join(Threads& threads) {
    for (auto& thread : threads)
        thread.join();
}

class DeafClient final : public UVAClient {
public:
    void deliverEvent(UVAEvent* event) override { delete event; }
};

/// Whoever comes after all that plays: a new element gets its decoders and shows pictures. One that
/// meets an answer to somebody before it may be refused, once.
void requirePlayback(Random& random) {
    support::SinkWatch::instance().restart({});
    for (int i = 0; i < 2; ++i) {
        Player player(*library(), random.oneIn(2) ? url() : fed(), random.child());
        player.play();
        player.until(atOnce, "a picture, or a refusal, of a new element", [&] {
            return picturesShown(0, 2) > 0 || player.count(UVAEvent::DecodeError) > 0;
        });
        if (picturesShown(0, 2) > 0)
            return;
    }
    fail("a new element is refused its decoders twice");
}

} // namespace

// ---- decoders

/// Elements of one or two hosts that refuse, or say nothing, and a main system that does the same,
/// is late, asks back, begins anew.
void arbitration(Random random) {
    MainSystem mainSystem;
    std::vector<Player::Habits> habits{url(), fed()};
    for (auto& each : habits) {
        each.refuses = random.below(3);
        each.leavesUnanswered = random.below(3);
    }
    { Player first(*library(), url(), random.child()); } // opens the link
    std::atomic<unsigned int> walking{1 + random.below(2)};
    Threads hosts;
    for (unsigned int i = walking; i > 0; --i)
        hosts.emplace_back([&, numbers = random.child()] {
            walkWithPlayers(*library(), habits, numbers, 12);
            --walking;
        });
    const bool mayRestart = random.oneIn(4);
    while (walking > 0) {
        const auto command = random.pick<const char*>(
            {"grant", "grant", "grant both", "refuse", "ignore", "delay 0", "delay 0.005",
             "delay 0.03", "release audio", "release video", "release both", "restart"});
        if (mayRestart || std::string(command) != "restart")
            mainSystem.say(command);
        pause(milliseconds(random.below(15)));
    }
    join(hosts);
    mainSystem.say("delay 0");
    mainSystem.say("grant");
    mainSystem.untilObeyed();
    pause(milliseconds(35)); // what was to be answered late has been
    requirePlayback(random);

    // All that was granted is free again: it is given back when it is asked for, each time once.
    const int before = MainSystem::count("<- 520");
    mainSystem.say("release both");
    eventually(atOnce, "the answer to what is asked back from nobody", [&] {
        return mayRestart ? MainSystem::count("<- 520") > before
                          : MainSystem::count("<- 520") == MainSystem::count("-> 519");
    });
    requireNoSamples();
}

// ---- media sources

/// Samples from several threads, asked for or not, into sources that come and go and are sought.
/// What arrives at the sinks is not decoded: the traffic is what is tried.
void sources(Random random) {
    playStandalone();
    library();
    support::RecordingSinks::install();
    const auto latest = milliseconds(random.below(6));
    Player player(*library(), fed(latest), random.child());
    player.play();
    std::atomic<bool> isWriting{true};
    Threads writers;
    for (unsigned int i = random.below(3); i > 0; --i)
        writers.emplace_back([&, numbers = random.child()]() mutable {
            while (isWriting) {
                player.writeMore();
                pause(milliseconds(numbers.below(5)));
            }
        });
    for (unsigned int i = 0; i < 30; ++i) {
        switch (random.below(8)) {
        case 0:
            player.pause();
            break;
        case 1:
            player.play();
            break;
        case 2:
        case 3:
            player.seek(random.time(1.8));
            break;
        case 4:
            player.reattach(random.below(2));
            break;
        default:
            break;
        }
        player.runFor(milliseconds(random.below(5)));
    }
    isWriting = false;
    join(writers);
    if (random.oneIn(2)) { // else in the middle of it
        player.play();
        player.until(latest, "an end of the seeks", [&] { return player.isSettled(); });
        const int before = player.count(UVAEvent::PlaybackFinished);
        player.seek(0);
        player.until(latest, "the outcome of a seek", [&] { return player.outcome().has_value(); });
        require(player.outcome() == Outcome::Succeeded, "a seek of media sources fails");
        player.until(20 * latest, "the end of sources that are fed from their beginning",
                     [&] { return player.count(UVAEvent::PlaybackFinished) > before; });
    }
    player.release();
    support::RecordingSinks::clear();
    requireNoSamples();
}

// ---- seeks

namespace {

/// Of the last seek, since the watch has begun.
bool isLastPictureShown() {
    const auto shown = support::SinkWatch::instance().video().buffers;
    return !shown.empty() && shown.back().flushes > 0 && shown.back().position > 2 - 1.5 * frame;
}

/// After the last seek each picture was shown once and in order, from its target to the end.
void requireAllFrom(double target) {
    auto shown = support::SinkWatch::instance().video().buffers;
    require(!shown.empty(), "no picture after a seek");
    const auto isOfLast = [last = shown.back().flushes](const auto& picture) {
        return picture.flushes == last;
    };
    double expected = target; // at most a picture's length before
    for (auto at = std::find_if(shown.begin(), shown.end(), isOfLast); at != shown.end(); ++at) {
        require(std::abs(at->position - expected) < 1.1 * frame,
                "after a seek to " + std::to_string(target) + " a picture of " +
                    std::to_string(at->position) + " is shown where that of " +
                    std::to_string(expected) + " is due");
        expected = at->position + frame;
    }
    require(expected > 2 - 1.5 * frame,
            "the pictures after a seek end at " + std::to_string(expected));
}

} // namespace

/// One seek upon another, in any state; after the last all is shown from its target on.
void seeks(Random random) {
    playStandalone();
    library();
    const auto latest = milliseconds(random.below(10));
    Player player(*library(), random.oneIn(2) ? url(latest) : fed(latest), random.child());
    if (random.oneIn(2))
        player.play();
    else
        player.pause();
    if (!player.isFed()) // earlier it fails
        player.until(atOnce, "the metadata",
                     [&] { return player.count(UVAEvent::NewMetadata) > 0; });
    for (unsigned int storm = 2; storm > 0; --storm) {
        for (unsigned int i = random.below(6); i > 0; --i) {
            player.seek(random.time(1.9));
            player.runFor(milliseconds(random.below(8)));
            if (random.oneIn(4))
                random.oneIn(2) ? player.play() : player.pause();
        }
        const double target = storm == 1 ? 0.3 + random.time(0.2) : 1.2 + random.time(0.2);
        support::SinkWatch::instance().restart({false, false, false});
        const int endsBefore = player.count(UVAEvent::PlaybackFinished);
        player.seek(target);
        player.until(latest, "the outcome of a seek",
                     [&] { return player.isSettled() && player.outcome().has_value(); });
        require(player.outcome() == Outcome::Succeeded, "a seek within the media fails");
        player.play();
        if (random.oneIn(2) && storm != 1) {
            player.until(2 * latest, "a picture after a seek",
                         [&] { return picturesShown(target - frame, target + 0.5) > 0; });
            continue;
        }
        // It may have been about to end when it was sought: that end may be told late.
        player.until(20 * latest, "the end after a seek, and its last picture", [&] {
            return player.count(UVAEvent::PlaybackFinished) > endsBefore && isLastPictureShown();
        });
        requireAllFrom(target);
    }
    player.release();
    requireNoSamples();
}

// ---- threads

/// What may not start does not: a host is told, nobody waits, and nothing falls over.
void starts(Random random) {
    unsetenv("CHAOS_SEED"); // the main system has all its threads
    std::optional<MainSystem> mainSystem;
    if (random.oneIn(2))
        mainSystem.emplace();
    else
        playStandalone();
    DeafClient client;
    UVAMediaBackend* backend = nullptr;
    for (int tries = 0; tries < 40 && backend == nullptr; ++tries)
        backend = within(atOnce, "UVA_RequestBackend",
                         [&] { return library()->request(UVABackend::VideoElement, &client); });
    require(backend != nullptr, "there is no backend, however often it is asked for");
    within(atOnce, "UVA_ReleaseBackend", [&] { return library()->release(backend); });
    for (int i = 0; i < 2; ++i) {
        Player player(*library(), random.oneIn(2) ? url() : fed(), random.child());
        player.play();
        player.until(atOnce, "a picture, or a refusal", [&] {
            return picturesShown(0, 2) > 0 || player.count(UVAEvent::DecodeError) > 0;
        });
        require(mainSystem || player.count(UVAEvent::DecodeError) == 0,
                "what needs no decoder is refused one");
    }
    requireNoSamples();
}

} // namespace chaos
