// What a fed sample costs between writeData() and the sink pad, clear and encrypted; what an hour of
// playback and a capability query cost. Sinks that take everything at once stand in for the set's.
// Prints JSON.

#include "backend/gstnox_backend.h"
#include "bench_support.h"
#include "host/clear_key.h"
#include "plugin/gstnox_plugin.h"
#include "uva/uva_event.h"
#include "uva/uva_sample.h"

#include <gst/app/gstappsrc.h>
#include <gst/base/gstbasesink.h>
#include <openssl/evp.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using Subsamples = std::vector<UVASample::Subsample>;

constexpr unsigned int batch = 30;
constexpr double frame = 0.04; // seconds
const host::KeyPair key = {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}, {42}};

std::vector<std::uint8_t> payload(1 << 20, 0x5A); // all samples share it

struct Config final : UVAStreamConfig {
    Config(int number, bool video) {
        codec = number;
        if (video) {
            width = 1920;
            height = 1080;
        } else {
            sampleRate = 48000;
            channels = 2;
        }
    }
};
const Config videoConfig(UVAStreamConfig::CODEC_VP8, true);
const Config audioConfig(UVAStreamConfig::CODEC_DTS, false);

class BenchSample final : public UVASample {
public:
    BenchSample(std::size_t bytes, double time, const Config& config, bool encrypted)
        : m_size(bytes), m_time(time), m_config(config), m_encrypted(encrypted) {
        if (encrypted)
            m_map = {{0, static_cast<std::uint32_t>(bytes)}};
    }
    const std::uint8_t* payload() const override { return ::payload.data(); }
    std::size_t payloadSize() const override { return m_size; }
    double pts() const override { return m_time; }
    double dts() const override { return m_time; }
    double duration() const override { return frame; }
    const UVAStreamConfig* config() const override { return &m_config; }
    const std::uint8_t* keyId() const override { return m_encrypted ? key.id.data() : nullptr; }
    std::size_t keyIdSize() const override { return key.id.size(); }
    const std::uint8_t* iv() const override { return key.id.data(); }
    std::size_t ivSize() const override { return 8; }
    const Subsamples& subsamples() const override { return m_map; }

private:
    const std::size_t m_size;
    const double m_time;
    const Config& m_config;
    const bool m_encrypted;
    Subsamples m_map;
};

/// Opened once everything has arrived.
class Gate {
public:
    void open() {
        const std::lock_guard lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    void wait() {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_open; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
};

struct Feed {
    std::size_t count;
    std::size_t bytes;
    bool encrypted = false;
    const Config& config = videoConfig;
};

/// Answers requests from inside the event.
class Client final : public UVAClient {
public:
    void deliverEvent(UVAEvent* event) override {
        std::unique_ptr<UVAEvent> owned(event);
        if (event->type() == UVAEvent::PlaybackFinished)
            finished.open();
        if (event->type() == UVAEvent::NeedMSEData)
            answer(static_cast<NeedMSEDataEvent*>(owned.release()));
    }
    void answer(NeedMSEDataEvent* event) {
        const std::size_t source = event->sourceId - 1;
        const Feed& feed = feeds[source];
        std::size_t& next = sent[source];
        if (next == feed.count) {
            backend->writeData(event, 0, UVABackend::EndOfStream);
            return;
        }
        const std::size_t count = std::min<std::size_t>(batch, feed.count - next);
        event->samples = new UVASample* [count + 1] {};
        for (std::size_t i = 0; i < count; ++i, ++next)
            event->samples[i] = new BenchSample(feed.bytes, static_cast<double>(next) * frame,
                                                feed.config, feed.encrypted);
        backend->writeData(event, 0, UVABackend::Data);
    }

    GstNoxBackend* backend = nullptr;
    std::vector<Feed> feeds; // by source id, from 1
    std::vector<std::size_t> sent;
    Gate finished;
};

class Source final : public UVABackend::SourceDescription {
public:
    Source(int id, bool video) {
        type = MseStreaming;
        sourceId = id;
        mimeType = video ? "video/x-plain" : "audio/x-plain"; // no parser
        streamType = GST_APP_STREAM_TYPE_SEEKABLE;
    }
};

/// "halvideosink" and "halaudiosink" that take anything at once and drop it.
void installSinks() {
    GTypeInfo info{};
    info.class_size = sizeof(GstBaseSinkClass);
    info.instance_size = sizeof(GstBaseSink);
    info.class_init = [](gpointer klass, gpointer) {
        static GstStaticPadTemplate any =
            GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);
        gst_element_class_add_static_pad_template(GST_ELEMENT_CLASS(klass), &any);
        gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(klass), "Dropping sink", "Sink",
                                              "Drops what it is handed", "Benchmarks");
        g_signal_new("decoder-request", G_TYPE_FROM_CLASS(klass), G_SIGNAL_RUN_LAST, 0, nullptr,
                     nullptr, nullptr, G_TYPE_INT, 1, G_TYPE_STRING);
    };
    info.instance_init = [](GTypeInstance* instance, gpointer) {
        gst_base_sink_set_sync(GST_BASE_SINK(instance), FALSE);
    };
    const GType type =
        g_type_register_static(GST_TYPE_BASE_SINK, "BenchDroppingSink", &info, GTypeFlags{});
    for (const char* name : {"halvideosink", "halaudiosink"})
        gst_element_register(nullptr, name, GST_RANK_NONE, type);
}

/// Seconds from play() to the end.
double feedBackend(std::vector<Feed> feeds) {
    Client client;
    client.feeds = std::move(feeds);
    client.sent.resize(client.feeds.size());
    GstNoxBackend backend(UVABackend::VideoElement, &client);
    client.backend = &backend;
    UVAKeySystemConfig config;
    config.keySystemId = host::clearKeySystem;
    backend.setKeySystem(config);
    std::vector<UVABackend::SourceDescription*> sources;
    for (std::size_t i = 0; i < client.feeds.size(); ++i)
        sources.push_back(
            new Source(static_cast<int>(i) + 1, &client.feeds[i].config == &videoConfig));
    sources.push_back(nullptr);
    backend.initBackend("", sources.data(), false, false);
    const auto start = Clock::now();
    backend.play();
    client.finished.wait();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// The same buffers pushed into a bare appsrc.
struct Bare {
    explicit Bare(const Feed& what) : feed(what) {}

    const Feed& feed;
    std::size_t next = 0;

    static void needData(GstAppSrc* appsrc, guint, gpointer self) {
        static_cast<Bare*>(self)->push(appsrc);
    }
    void push(GstAppSrc* appsrc) {
        if (next == feed.count)
            gst_app_src_end_of_stream(appsrc);
        for (unsigned int i = 0; i < batch && next < feed.count; ++i, ++next) {
            auto* sample = new BenchSample(feed.bytes, static_cast<double>(next) * frame,
                                           feed.config, false);
            auto* buffer = gst_buffer_new_wrapped_full(
                GST_MEMORY_FLAG_READONLY, payload.data(), feed.bytes, 0, feed.bytes, sample,
                [](gpointer s) { delete static_cast<UVASample*>(s); });
            GST_BUFFER_PTS(buffer) = GST_BUFFER_DTS(buffer) =
                static_cast<GstClockTime>(sample->pts() * 1e9);
            GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>(frame * 1e9);
            gst_app_src_push_buffer(appsrc, buffer);
        }
    }
};

double feedAppsrc(const Feed& feed) {
    Bare bare(feed);
    GstElement* pipeline = gst_pipeline_new(nullptr);
    GstElement* appsrc = gst_element_factory_make("appsrc", nullptr);
    GstElement* sink = gst_element_factory_make("halvideosink", "bare");
    GstCaps* caps = gst_caps_from_string("video/x-vp8, width=1920, height=1080");
    g_object_set(appsrc, "stream-type", GST_APP_STREAM_TYPE_SEEKABLE, "format", GST_FORMAT_TIME,
                 "caps", caps, nullptr);
    gst_caps_unref(caps);
    GstAppSrcCallbacks callbacks{};
    callbacks.need_data = Bare::needData;
    callbacks.seek_data = [](GstAppSrc*, guint64, gpointer) -> gboolean { return TRUE; };
    gst_app_src_set_callbacks(GST_APP_SRC(appsrc), &callbacks, &bare, nullptr);
    gst_bin_add_many(GST_BIN(pipeline), appsrc, sink, nullptr);
    gst_element_link(appsrc, sink);
    GstBus* bus = gst_element_get_bus(pipeline);
    const auto start = Clock::now();
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    gst_message_unref(gst_bus_timed_pop_filtered(bus, GST_CLOCK_TIME_NONE, GST_MESSAGE_EOS));
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(bus);
    gst_object_unref(pipeline);
    return seconds;
}

/// AES-CTR with OpenSSL and one copy, what cannot be saved.
double cipherAlone(std::size_t count, std::size_t bytes) {
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(context, EVP_aes_128_ctr(), nullptr, key.key.data(), nullptr);
    std::vector<std::uint8_t> copy(bytes);
    std::array<std::uint8_t, 16> iv{};
    const auto start = Clock::now();
    for (std::size_t i = 0; i < count; ++i) {
        int length = 0;
        std::memcpy(copy.data(), payload.data(), bytes);
        EVP_EncryptInit_ex(context, nullptr, nullptr, nullptr, iv.data());
        EVP_EncryptUpdate(context, copy.data(), &length, copy.data(), static_cast<int>(bytes));
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    EVP_CIPHER_CTX_free(context);
    return seconds;
}

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double residentMegabytes() {
    long pages = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return static_cast<double>(resident * sysconf(_SC_PAGESIZE)) / 1e6;
}

/// Microseconds a query, over 10,000 of several kinds.
double queryMicroseconds() {
    class Deaf final : public UVAClient {
        void deliverEvent(UVAEvent* event) override { delete event; }
    } client;
    GstNoxBackend backend(UVABackend::VideoElement, &client);
    std::vector<UVABackend::ContentDescription> questions(5);
    questions[0].type = "video/mp4";
    questions[0].codecs = {"avc1.640028", "mp4a.40.2"};
    questions[1].type = "video/webm";
    questions[1].codecs = {"vp09.02.51.10.01.09.16.09"};
    questions[1].width = "3840";
    questions[1].height = "2160";
    questions[1].framerate = "60000/1001";
    questions[2].type = "video/x-vp9";
    questions[3].type = "audio/unknown";
    questions[4].codecs = {"hev1.1.6.L153.B0", "ec-3", "none"};
    constexpr int count = 10000;
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i)
        backend.canPlayType(questions[static_cast<std::size_t>(i) % questions.size()]);
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count() / count;
}

struct Pair {
    double ours, bare;
};

/// Medians over turns of both.
template <typename Ours, typename Other>
Pair alternate(int turns, Ours ours, Other other) {
    std::vector<double> first, second;
    for (int i = 0; i < turns; ++i) {
        first.push_back(ours());
        second.push_back(other());
    }
    return {bench::quantile(first, 0.5), bench::quantile(second, 0.5)};
}

} // namespace

int main() {
    setenv("NOX_GST_STANDALONE", "1", 1);
    BackendInit(nullptr);
    installSinks();
    host::ClearKey keys(host::ClearKey::Interface::PerRange);
    keys.addKey(key);
    UVA_OfferDRMBackend(host::clearKeySystem, &keys);
    constexpr int turns = 15;

    std::printf("{\"samples\": [");
    const char* comma = "";
    for (const std::size_t bytes : {400U, 20000U}) {
        const Feed feed{bytes < 1000 ? 100000U : 30000U, bytes};
        const Pair pair =
            alternate(turns, [&] { return feedBackend({feed}); }, [&] { return feedAppsrc(feed); });
        const auto count = static_cast<double>(feed.count);
        std::printf("%s{\"bytes\": %zu, \"ours\": %.4f, \"bare\": %.4f}", comma, bytes,
                    pair.ours / count * 1e6, pair.bare / count * 1e6);
        comma = ", ";
    }
    std::printf("], \"protected\": [");
    comma = "";
    for (const std::size_t bytes : {1000U, 20000U, 500000U}) {
        const std::size_t count = bytes < 10000 ? 50000U : bytes < 100000 ? 20000U : 1000U;
        const Pair pair = alternate(
            turns, [&] { return feedBackend({{count, bytes, true}}); },
            [&] { return cipherAlone(count, bytes); });
        const Pair clear = alternate(
            turns, [&] { return feedBackend({{count, bytes, false}}); }, [] { return 0.0; });
        const auto samples = static_cast<double>(count);
        std::printf("%s{\"bytes\": %zu, \"ours\": %.4f, \"cipher\": %.4f, \"clear\": %.4f}", comma,
                    bytes, pair.ours / samples * 1e6, pair.bare / samples * 1e6,
                    clear.ours / samples * 1e6);
        comma = ", ";
    }
    constexpr std::size_t videoAnHour = 3600 * 25;
    constexpr std::size_t audioAnHour = 3600 * 47;
    const double before = cpuSeconds();
    feedBackend({{videoAnHour, 20000}, {audioAnHour, 400, false, audioConfig}});
    std::printf("], \"cpuSecondsAnHour\": %.3f", cpuSeconds() - before);

    const double memoryBefore = residentMegabytes();
    feedBackend({{24 * videoAnHour, 400}});
    std::printf(", \"memoryBefore\": %.2f, \"memoryAfter24Hours\": %.2f", memoryBefore,
                residentMegabytes());
    std::printf(", \"queryMicroseconds\": %.3f}\n", queryMicroseconds());
    UVA_OfferDRMBackend(host::clearKeySystem, nullptr);
    return 0;
}
