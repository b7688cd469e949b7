// What the backend costs on top of GStreamer: first frame, seek, and the life of a thousand
// players. Both sides have the same sinks.

#include "backend_player.h"
#include "nox/screen.h"
#include "plugin/gstnox_plugin.h"

#include <gst/gst.h>

#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using bench::Clock;

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
        if (!m_shown.wait_for(lock, std::chrono::seconds(60), [&] { return m_count > count; }))
            bench::fail("no picture was shown; run it with `meson devenv`");
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

/// What a host without the backend would write. It goes to PAUSED and back after a seek, as the
/// backend has to.
class BarePlaybin {
public:
    explicit BarePlaybin(const std::string& url)
        : m_playbin(
              GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("playbin", nullptr)))) {
        g_object_set(m_playbin, "uri", url.c_str(), nullptr);
    }
    ~BarePlaybin() {
        gst_element_set_state(m_playbin, GST_STATE_NULL);
        gst_object_unref(m_playbin);
    }
    void play() { gst_element_set_state(m_playbin, GST_STATE_PLAYING); }
    void seek(double seconds) {
        gst_element_seek_simple(
            m_playbin, GST_FORMAT_TIME,
            static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE),
            static_cast<gint64>(seconds * 1e9));
        gst_element_set_state(m_playbin, GST_STATE_PAUSED);
        gst_element_set_state(m_playbin, GST_STATE_PLAYING);
    }

private:
    GstElement* const m_playbin;
};

class Backend : public bench::BackendPlayer {
public:
    explicit Backend(const std::string& url)
        : BackendPlayer({UVA_RequestBackend, UVA_ReleaseBackend}, url) {}
};

double millisecondsSince(Clock::time_point start, Clock::time_point shown) {
    return std::chrono::duration<double, std::milli>(shown - start).count();
}

template <typename Of>
double firstFrame() {
    Of player(bench::fileUrl());
    const long before = pictures().count();
    const auto start = Clock::now();
    player.play();
    return millisecondsSince(start, pictures().after(before));
}

template <typename Of>
double seekToFrame() {
    Of player(bench::fileUrl());
    const long before = pictures().count();
    player.play();
    pictures().after(before + 5);
    const auto start = Clock::now();
    player.seek(3.0);
    return millisecondsSince(start, pictures().after(pictures().count()));
}

void start() {
    gst_init(nullptr, nullptr);
    bench::compare("first_frame", bench::share(101), firstFrame<Backend>, firstFrame<BarePlaybin>);
}

void seek() {
    gst_init(nullptr, nullptr);
    bench::compare("seek", bench::share(101, 1), seekToFrame<Backend>, seekToFrame<BarePlaybin>);
}

double descriptors() {
    const std::filesystem::directory_iterator folder("/proc/self/fd");
    return static_cast<double>(std::distance(begin(folder), end(folder)));
}

/// What a process holds after each of many players, which come behind a tenth that warms up.
struct Lives {
    static constexpr int most = 920;
    double memory[most], opened[most];

    template <typename Of>
    void live(int count) {
        for (int i = -count / 10; i < count; ++i) {
            firstFrame<Of>();
            if (i < 0)
                continue;
            memory[i] = bench::residentMegabytes();
            opened[i] = descriptors();
        }
    }
    /// From each place in the first half to its place in the second.
    bench::Values growth(int count) const {
        bench::Values values;
        for (int i = 0; i < count / 2; ++i)
            values.push_back(memory[count / 2 + i] / memory[i]);
        return values;
    }
};

/// The peer lives beside it, in a process of its own.
void cycles() {
    const int count = bench::share(Lives::most, 6);
    auto* const sides = static_cast<Lives*>(mmap(nullptr, 2 * sizeof(Lives), PROT_READ | PROT_WRITE,
                                                 MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const pid_t peer = sides == MAP_FAILED ? -1 : fork();
    if (peer < 0)
        bench::fail("no memory for a second process");
    gst_init(nullptr, nullptr);
    if (peer == 0) {
        sides[1].live<BarePlaybin>(count);
        _exit(0);
    }
    sides[0].live<Backend>(count);
    int status = 0;
    if (waitpid(peer, &status, 0) != peer || status != 0)
        bench::fail("the bare players failed");
    bench::report("cycles_memory", sides[0].growth(count), sides[1].growth(count));
    const double* const opened = sides[0].opened;
    bench::report("cycles_descriptors", {opened + count / 2, opened + count / 2 * 2},
                  {opened, opened + count / 2});
}

} // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv, {{"start", start}, {"seek", seek}, {"cycles", cycles}});
}
