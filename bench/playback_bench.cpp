// What the backend costs on top of GStreamer: first frame, seek, and the life of a thousand
// players. Both sides of a ratio run in turn in this one process, with the same sinks.
//
// Usage: playback_bench CLIP.mp4 REPORT.md [ROUNDS [CYCLES]]
//
// The report is Markdown, in a file: the library's entry points write to standard output.

#include "backend/gstnox_backend.h"
#include "plugin/gstnox_plugin.h"
#include "nox/screen.h"
#include "uva/uva_event.h"

#include <gst/gst.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

/// When pictures come onto the screen.
class PictureWatch {
public:
    PictureWatch()
        : m_listener(nox::Screen::instance().listen([this] {
              const std::lock_guard lock(m_mutex);
              m_last = Clock::now();
              ++m_count;
              m_shown.notify_all();
          })) {}

    long count() {
        const std::lock_guard lock(m_mutex);
        return m_count;
    }

    /// When the picture after the `count`-th was shown; exits when none comes.
    Clock::time_point after(long count) {
        std::unique_lock lock(m_mutex);
        if (!m_shown.wait_for(lock, std::chrono::seconds(20), [&] { return m_count > count; })) {
            std::fprintf(stderr,
                         "playback_bench: no picture was shown; run it with `meson devenv`\n");
            std::exit(1);
        }
        return m_last;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_shown;
    Clock::time_point m_last;
    long m_count = 0;
    std::shared_ptr<void> m_listener;
};

PictureWatch& pictures() {
    static PictureWatch watch;
    return watch;
}

/// One side of the comparison: a player that can be started, sought and dropped.
class Player {
public:
    virtual ~Player() = default;
    virtual void play() = 0;
    virtual void seek(double seconds) = 0;
};

/// What a host without the backend would write.
class BarePlaybin : public Player {
public:
    /// With `forceState` it goes to PAUSED and back after a seek, as the backend has to.
    explicit BarePlaybin(const std::string& uri, bool forceState = false)
        : m_playbin(GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("playbin", nullptr)))),
          m_forceState(forceState) {
        g_object_set(m_playbin, "uri", uri.c_str(), nullptr);
    }
    ~BarePlaybin() override {
        gst_element_set_state(m_playbin, GST_STATE_NULL);
        gst_object_unref(m_playbin);
    }
    void play() override { gst_element_set_state(m_playbin, GST_STATE_PLAYING); }
    void seek(double seconds) override {
        gst_element_seek_simple(
            m_playbin, GST_FORMAT_TIME,
            static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE),
            static_cast<gint64>(seconds * 1e9));
        if (!m_forceState)
            return;
        gst_element_set_state(m_playbin, GST_STATE_PAUSED);
        gst_element_set_state(m_playbin, GST_STATE_PLAYING);
    }

private:
    GstElement* const m_playbin;
    const bool m_forceState;
};

class Source : public UVABackend::SourceDescription {
public:
    explicit Source(std::string address) : m_url(std::move(address)) {
        type = BackendStreaming;
        url = m_url.c_str();
    }

private:
    const std::string m_url;
};

class BackendPlayer : public Player, private UVAClient {
public:
    explicit BackendPlayer(const std::string& uri)
        : m_backend(UVA_RequestBackend(UVABackend::VideoElement, this)) {
        UVABackend::SourceDescription* sources[] = {new Source(uri), nullptr};
        m_backend->initBackend("bench", sources, false);
    }
    ~BackendPlayer() override { UVA_ReleaseBackend(m_backend); }
    void play() override { m_backend->play(); }
    void seek(double seconds) override {
        m_backend->setPosition(seconds);
        const CancelDataRequestsAsyncEvent cancelled(seconds);
        m_backend->eventCompleted(&cancelled, true);
    }

private:
    void deliverEvent(UVAEvent* event) override {
        if (event->type() == UVAEvent::BackendResourceRequestAsync)
            m_backend->eventCompleted(static_cast<UVAAsyncEvent*>(event), true);
        delete event;
    }
    UVAMediaBackend* const m_backend;
};

using MakePlayer = std::function<std::unique_ptr<Player>()>;

double firstFrame(const MakePlayer& make) {
    const auto player = make();
    const long before = pictures().count();
    const auto start = Clock::now();
    player->play();
    return Milliseconds(pictures().after(before) - start).count();
}

double seekToFrame(const MakePlayer& make) {
    const auto player = make();
    const long before = pictures().count();
    player->play();
    pictures().after(before + 5);
    const auto start = Clock::now();
    player->seek(3.0);
    return Milliseconds(pictures().after(pictures().count()) - start).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

std::FILE* report = nullptr;

void compare(const char* what, double budget, int rounds, const MakePlayer& ours,
             const MakePlayer& bare, double (*measure)(const MakePlayer&)) {
    std::vector<double> a;
    std::vector<double> b;
    std::vector<double> ratios;
    measure(ours); // warms both up
    measure(bare);
    for (int round = 0; round < rounds; ++round) {
        const bool oursFirst = round % 2 == 0;
        const double first = measure(oursFirst ? ours : bare);
        const double second = measure(oursFirst ? bare : ours);
        a.push_back(oursFirst ? first : second);
        b.push_back(oursFirst ? second : first);
        ratios.push_back(a.back() / b.back());
        if (isatty(STDERR_FILENO) != 0)
            std::fprintf(stderr, "\r%s: %d of %d", what, round + 1, rounds);
    }
    if (isatty(STDERR_FILENO) != 0)
        std::fprintf(stderr, "\n");
    std::fprintf(report, "| %s | %.2f ms | %.2f ms | %.3f | %.3f | %.2f |\n", what, median(a),
                 median(b), median(a) / median(b), median(ratios), budget);
    std::fflush(report);
}

long residentKilobytes() {
    long pages = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

long descriptors() {
    const std::filesystem::directory_iterator folder("/proc/self/fd");
    return std::distance(begin(folder), end(folder));
}

void cycle(int cycles, const MakePlayer& make) {
    std::fprintf(report, "\n| cycles | resident memory | descriptors |\n|---|---|---|\n");
    for (int i = 1; i <= cycles; ++i) {
        firstFrame(make);
        if (i % (std::max(cycles, 10) / 10) == 0)
            std::fprintf(report, "| %d | %ld kB | %ld |\n", i, residentKilobytes(), descriptors());
    }
}

std::string processorName() {
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);)
        if (line.rfind("model name", 0) == 0)
            return line.substr(line.find(':') + 2);
    return "unknown processor";
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "Usage: playback_bench CLIP.mp4 REPORT.md [ROUNDS [CYCLES]]\n");
        return 2;
    }
    report = std::fopen(argv[2], "we");
    if (report == nullptr) {
        std::perror(argv[2]);
        return 1;
    }
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 30;
    const int cycles = argc > 4 ? std::atoi(argv[4]) : 1000;
    BackendInit(nullptr);
    gchar* const address = gst_filename_to_uri(argv[1], nullptr);
    const std::string uri = address != nullptr ? address : "";
    g_free(address);
    const MakePlayer ours = [&uri] { return std::make_unique<BackendPlayer>(uri); };
    const MakePlayer bare = [&uri] { return std::make_unique<BarePlaybin>(uri); };
    const MakePlayer forced = [&uri] { return std::make_unique<BarePlaybin>(uri, true); };

    std::fprintf(report, "# Playback\n\nMachine: %s, %u processors, %s.\n", processorName().c_str(),
                 std::thread::hardware_concurrency(), gst_version_string());
    std::fprintf(report,
                 "\n| | backend | bare playbin | ratio of medians | median of ratios | budget |\n"
                 "|---|---|---|---|---|---|\n");
    compare("first frame", 1.03, rounds, ours, bare, firstFrame);
    compare("seek to frame", 1.03, rounds, ours, bare, seekToFrame);
    compare("seek to frame, state forced by both", 1.03, rounds, ours, forced, seekToFrame);
    cycle(cycles, ours);
    return std::fclose(report) == 0 ? 0 : 1;
}
