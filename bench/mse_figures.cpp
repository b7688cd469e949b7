// How well a media source is played: what is shown and heard in the simulated sinks, and when, of
// one clip that is played through, started anew and paused.
//
// Usage: mse_figures CLIP
//
// The clip has pictures and sound, and should last a minute. The answer is Markdown.

#include "bench_support.h"
#include "host/backend_library.h"
#include "host/event_loop.h"
#include "host/media_element.h"

#include "support/sink_watch.h"
#include "support/wait_until.h"

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

using host::State;
using support::Rendered;
using support::RenderedStream;
using support::SinkWatch;
using support::waitUntil;
using Moment = std::chrono::steady_clock::time_point;
using Buffers = std::vector<Rendered>;

constexpr auto patience = std::chrono::minutes(10);
constexpr double millisecond = 1e-3;

double secondsBetween(Moment from, Moment to) {
    return std::chrono::duration<double>(to - from).count();
}

[[noreturn]] void giveUp(const std::string& reason) {
    std::fprintf(stderr, "mse_figures: %s\n", reason.c_str());
    std::exit(1);
}

/// A position and when it was read.
struct Reading {
    Moment time;
    double position;
    State state;
};

/// One playback of the clip.
class Player final : public host::Observer {
public:
    explicit Player(const std::string& clip)
        : m_element(library(), std::make_shared<host::EventLoop>(), *this, options()) {
        SinkWatch::instance().restart({});
        host::MediaSource source;
        source.open = [clip](const std::atomic<bool>& cancelled) {
            return host::openMedia(clip, cancelled);
        };
        m_element.openSource(std::move(source));
    }

    Moment play() {
        const auto now = std::chrono::steady_clock::now();
        m_element.play();
        return now;
    }
    void pause() { m_element.pause(); }

    void waitFor(State state) {
        const bool reached = waitUntil(
            [&] { return status().state == state || status().state == State::Failed; }, patience);
        if (!reached || status().state == State::Failed)
            giveUp("the clip does not play: " + status().reason + "; run it with `meson devenv`");
    }
    host::Status status() const {
        const std::lock_guard lock(m_mutex);
        return m_status;
    }
    /// What was read in this state, whenever something had changed.
    std::vector<Reading> readings(State state) const {
        const std::lock_guard lock(m_mutex);
        std::vector<Reading> found;
        std::copy_if(m_readings.begin(), m_readings.end(), std::back_inserter(found),
                     [state](const Reading& reading) { return reading.state == state; });
        return found;
    }

private:
    static host::MediaElement::Options options() {
        host::MediaElement::Options options;
        options.tick = std::chrono::milliseconds(10);
        return options;
    }
    static std::shared_ptr<host::BackendLibrary> library() {
        static const auto loaded = host::BackendLibrary::load("");
        if (loaded.library == nullptr)
            giveUp(loaded.error);
        return loaded.library;
    }

    void onRecord(const host::Record&) override {}
    void onStatus(const host::Status& status) override {
        const std::lock_guard lock(m_mutex);
        m_status = status;
        m_readings.push_back({status.time, status.position, status.state});
    }
    void onSeek(double, host::SeekOutcome) override {}

    mutable std::mutex m_mutex; // guards the two below
    host::Status m_status;
    std::vector<Reading> m_readings;
    host::MediaElement m_element; // last: nothing is reported once it is gone
};

/// The last one rendered at or before that moment; null when there is none.
const Rendered* at(const Buffers& buffers, Moment moment) {
    const auto after =
        std::upper_bound(buffers.begin(), buffers.end(), moment,
                         [](Moment time, const Rendered& buffer) { return time < buffer.time; });
    return after == buffers.begin() ? nullptr : &*(after - 1);
}

/// Until the first picture stands.
double startUp(const std::string& clip) {
    Player player(clip);
    const auto begin = player.play();
    Buffers shown;
    if (!waitUntil([&] { return !(shown = SinkWatch::instance().video().prerolled).empty(); },
                   patience))
        giveUp("no picture was shown; run it with `meson devenv`");
    return secondsBetween(begin, shown.front().time);
}

/// How far the position moves while playback is paused for ten seconds.
double pausedDrift(const std::string& clip) {
    Player player(clip);
    player.play();
    player.waitFor(State::Playing);
    if (!waitUntil([&] { return player.status().position > 2; }, patience))
        giveUp("the clip is too short");
    player.pause();
    player.waitFor(State::Paused);
    std::this_thread::sleep_for(std::chrono::seconds(10)); // what is measured
    const auto readings = player.readings(State::Paused);
    const auto [least, most] = std::minmax_element(
        readings.begin(), readings.end(), [](auto& a, auto& b) { return a.position < b.position; });
    return most->position - least->position;
}

/// How far position and clock part, seen from where both began, in the first minute.
double clockDrift(const std::vector<Reading>& readings) {
    double most = 0;
    for (const auto& reading : readings) {
        const double passed = secondsBetween(readings.front().time, reading.time);
        if (passed <= 60)
            most = std::max(most, std::abs(reading.position - readings.front().position - passed));
    }
    return most;
}

double positionToFrame(const std::vector<Reading>& readings, const Buffers& frames) {
    double most = 0;
    for (const auto& reading : readings)
        if (const auto* frame = at(frames, reading.time))
            most = std::max(most, std::abs(reading.position - frame->position));
    return most;
}

/// How much the sound is ahead of each frame that is shown while there is sound.
std::vector<double> soundAhead(const Buffers& frames, const Buffers& sound) {
    std::vector<double> ahead;
    for (const auto& frame : frames) {
        const auto* heard = at(sound, frame.time);
        if (heard == nullptr || heard == &sound.back())
            continue;
        const double since = secondsBetween(heard->time, frame.time);
        ahead.push_back(heard->position + std::min(since, heard->duration) - frame.position);
    }
    return ahead;
}

/// Frames that should have been shown up to that position, and were not.
long missing(const Buffers& frames, double frameLength, double upTo) {
    const auto shown = std::count_if(frames.begin(), frames.end(), [&](const Rendered& frame) {
        return frame.position < upTo - frameLength / 2;
    });
    return std::lround(upTo / frameLength) - shown;
}

double probe(const std::string& clip, const std::string& entry) {
    const auto command = "ffprobe -v error -select_streams V:0 -show_entries " + entry +
                         " -of csv=p=0 '" + clip + "'";
    double value = 0;
    double divisor = 1;
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    if (pipe == nullptr || std::fscanf(pipe.get(), "%lf/%lf", &value, &divisor) < 1)
        giveUp("ffprobe says nothing of " + clip);
    return value / divisor;
}

/// Rows on what was standard output; from now on that takes what the library prints.
class Report {
public:
    Report() : m_file(fdopen(dup(STDOUT_FILENO), "w")) {
        if (m_file == nullptr || dup2(STDERR_FILENO, STDOUT_FILENO) < 0)
            giveUp("standard output cannot be used");
        std::fprintf(m_file, "| figure | measured | bound | |\n|---|---|---|---|\n");
    }
    ~Report() { std::fclose(m_file); }

    void row(const char* figure, double value, double bound, const char* unit) {
        std::fprintf(m_file, "| %s | %.2f %s | %.3g %s | %s |\n", figure, value, unit, bound, unit,
                     value <= bound ? "kept" : "**missed**");
        std::fflush(m_file);
    }
    void milliseconds(const char* figure, double seconds, double bound) {
        row(figure, seconds / millisecond, bound, "ms");
    }

private:
    std::FILE* const m_file;
};

/// All that one playback from beginning to end tells.
void playThrough(const std::string& clip, Report& report) {
    const double length = probe(clip, "format=duration");
    const double frameLength = 1 / probe(clip, "stream=avg_frame_rate");
    Player player(clip);
    player.play();
    player.waitFor(State::Ended);
    const auto readings = player.readings(State::Playing);
    const auto frames = SinkWatch::instance().video().buffers;
    const auto sound = SinkWatch::instance().audio().buffers;
    if (readings.empty() || frames.empty() || sound.empty())
        giveUp("the clip needs pictures and sound");

    report.milliseconds("position against the clock, largest drift in 60 s", clockDrift(readings),
                        250);
    report.milliseconds("position against the frame shown, largest distance",
                        positionToFrame(readings, frames), 150 + frameLength / millisecond);
    const auto ahead = soundAhead(frames, sound);
    const auto outside = std::count_if(ahead.begin(), ahead.end(), [](double by) {
        return by > 40 * millisecond || by < -120 * millisecond;
    });
    report.row("frames whose sound is not within +40 and -120 ms",
               100.0 * static_cast<double>(outside) / static_cast<double>(ahead.size()), 5, "%");
    report.row("frames dropped in the first 15 s",
               static_cast<double>(missing(frames, frameLength, 15)), 1, "");
    report.row("frames dropped in all, each second",
               static_cast<double>(missing(frames, frameLength, length)) / length, 1.0 / 15, "");
    report.milliseconds("first frame, distance from time 0", frames.front().position, 1);
    report.milliseconds("last frame, distance from its time",
                        std::abs(frames.back().position - (length - frameLength)), 1);
    report.milliseconds("duration, distance from ffprobe's",
                        std::abs(player.status().duration - length), 50);
    report.milliseconds("position at the end, distance from ffprobe's duration",
                        std::abs(player.status().position - length), 50);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "Usage: mse_figures CLIP\n");
        return 2;
    }
    const std::string clip = argv[1];
    setenv("NOX_GST_STANDALONE", "1", 1);
    gst_init(nullptr, nullptr);
    SinkWatch::instance();
    Report report;
    std::vector<double> starts;
    for (int i = 0; i < 20; ++i)
        starts.push_back(startUp(clip));
    report.milliseconds("first frame after play(), median of 20", bench::quantile(starts, 0.5),
                        1000);
    report.milliseconds("first frame after play(), slowest", bench::quantile(starts, 1), 1000);
    report.milliseconds("position while paused for 10 s", pausedDrift(clip), 32);
    playThrough(clip, report);
    return 0;
}
