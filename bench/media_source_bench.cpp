// What a fed sample costs between writeData() and the sink pad, clear and encrypted; what an hour
// of playback and a capability query cost. Sinks that take everything at once stand in for the
// set's.

#include "backend/gstnox_backend.h"
#include "bench_support.h"
#include "host/clear_key.h"
#include "plugin/gstnox_plugin.h"
#include "uva/uva_event.h"
#include "uva/uva_sample.h"

#include <gst/app/gstappsrc.h>
#include <gst/base/gstbasesink.h>
#include <openssl/evp.h>

#include <array>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

namespace {

using Subsamples = std::vector<UVASample::Subsample>;

constexpr unsigned int batch = 30;
constexpr double frame = 0.04; // seconds
const host::KeyPair key = {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}, {42}};

std::vector<std::uint8_t> payload(1 << 20, 0x5A); // all samples share it

struct Config final : UVAStreamConfig {
    Config() {
        codec = CODEC_DTS;
        sampleRate = 48000;
        channels = 2;
    }
    Config(unsigned int columns, unsigned int rows) {
        codec = CODEC_VP8;
        width = columns;
        height = rows;
    }
};
const Config videoConfig(1920, 1080);
const Config smallerConfig(1280, 720);
const Config audioConfig;

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
    bool switches = false; ///< every other batch is of another rendition
    const Config* config = &videoConfig;

    const Config& configOf(std::size_t sample) const {
        return switches && sample / batch % 2 == 1 ? smallerConfig : *config;
    }
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
                                                feed.configOf(next), feed.encrypted);
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

/// A backend that is fed to the end.
class Element {
public:
    explicit Element(const Feed& feed) : Element(std::vector{feed}) {}
    explicit Element(std::vector<Feed> feeds) : m_backend(UVABackend::VideoElement, &m_client) {
        m_client.backend = &m_backend;
        m_client.feeds = std::move(feeds);
        m_client.sent.resize(m_client.feeds.size());
        UVAKeySystemConfig config;
        config.keySystemId = host::clearKeySystem;
        m_backend.setKeySystem(config);
        std::vector<UVABackend::SourceDescription*> sources;
        for (const Feed& feed : m_client.feeds)
            sources.push_back(
                new Source(static_cast<int>(sources.size()) + 1, feed.config != &audioConfig));
        sources.push_back(nullptr);
        m_backend.initBackend("", sources.data(), false, false);
    }
    void play() { m_backend.play(); }
    void wait() { m_client.finished.wait(); }

private:
    Client m_client;
    GstNoxBackend m_backend;
};

/// Processor time from play() to the end.
double feedBackend(std::vector<Feed> feeds) {
    Element player(std::move(feeds));
    return bench::processorSeconds([&] {
        player.play();
        player.wait();
    });
}

/// The same buffers pushed into a bare appsrc.
class Bare {
public:
    explicit Bare(const Feed& feed)
        : m_feed(feed), m_pipeline(gst_pipeline_new(nullptr)),
          m_bus(gst_element_get_bus(m_pipeline)) {
        GstElement* appsrc = gst_element_factory_make("appsrc", nullptr);
        GstElement* sink = gst_element_factory_make("halvideosink", nullptr);
        g_object_set(appsrc, "stream-type", GST_APP_STREAM_TYPE_SEEKABLE, "format", GST_FORMAT_TIME,
                     nullptr);
        GstAppSrcCallbacks callbacks{};
        callbacks.need_data = [](GstAppSrc* source, guint, gpointer self) {
            static_cast<Bare*>(self)->push(source);
        };
        callbacks.seek_data = [](GstAppSrc*, guint64, gpointer) -> gboolean { return TRUE; };
        gst_app_src_set_callbacks(GST_APP_SRC(appsrc), &callbacks, this, nullptr);
        gst_bin_add_many(GST_BIN(m_pipeline), appsrc, sink, nullptr);
        gst_element_link(appsrc, sink);
    }
    Bare(const Bare&) = delete;
    ~Bare() {
        gst_element_set_state(m_pipeline, GST_STATE_NULL);
        gst_object_unref(m_bus);
        gst_object_unref(m_pipeline);
    }
    void play() { gst_element_set_state(m_pipeline, GST_STATE_PLAYING); }
    void wait() {
        gst_message_unref(gst_bus_timed_pop_filtered(m_bus, GST_CLOCK_TIME_NONE, GST_MESSAGE_EOS));
    }

private:
    void push(GstAppSrc* appsrc) {
        if (m_next == m_feed.count)
            gst_app_src_end_of_stream(appsrc);
        for (unsigned int i = 0; i < batch && m_next < m_feed.count; ++i, ++m_next) {
            const Config& config = m_feed.configOf(m_next);
            if (&config != m_config)
                setCaps(appsrc, config);
            auto* sample =
                new BenchSample(m_feed.bytes, static_cast<double>(m_next) * frame, config, false);
            auto* buffer = gst_buffer_new_wrapped_full(
                GST_MEMORY_FLAG_READONLY, payload.data(), m_feed.bytes, 0, m_feed.bytes, sample,
                [](gpointer s) { delete static_cast<UVASample*>(s); });
            GST_BUFFER_PTS(buffer) = GST_BUFFER_DTS(buffer) =
                static_cast<GstClockTime>(sample->pts() * 1e9);
            GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>(frame * 1e9);
            gst_app_src_push_buffer(appsrc, buffer);
        }
    }
    void setCaps(GstAppSrc* appsrc, const Config& config) {
        m_config = &config;
        GstCaps* caps = gst_caps_new_simple("video/x-vp8", "width", G_TYPE_INT, config.width,
                                            "height", G_TYPE_INT, config.height, nullptr);
        gst_app_src_set_caps(appsrc, caps);
        gst_caps_unref(caps);
    }

    const Feed m_feed;
    std::size_t m_next = 0;
    const Config* m_config = nullptr;
    GstElement* const m_pipeline;
    GstBus* const m_bus;
};

double feedAppsrc(const Feed& feed) {
    Bare bare(feed);
    return bench::processorSeconds([&] {
        bare.play();
        bare.wait();
    });
}

/// AES-CTR with OpenSSL and one copy, what cannot be saved.
double cipherAlone(std::size_t count, std::size_t bytes) {
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(context, EVP_aes_128_ctr(), nullptr, key.key.data(), nullptr);
    std::vector<std::uint8_t> copy(bytes);
    std::array<std::uint8_t, 16> iv{};
    const double seconds = bench::processorSeconds([&] {
        for (std::size_t i = 0; i < count; ++i) {
            int length = 0;
            std::memcpy(copy.data(), payload.data(), bytes);
            EVP_EncryptInit_ex(context, nullptr, nullptr, nullptr, iv.data());
            EVP_EncryptUpdate(context, copy.data(), &length, copy.data(), static_cast<int>(bytes));
        }
    });
    EVP_CIPHER_CTX_free(context);
    return seconds;
}

void query() {
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
    constexpr std::size_t count = 1000;
    const auto ask = [&] {
        for (std::size_t i = 0; i < count; ++i)
            backend.canPlayType(questions[i % questions.size()]);
    };
    bench::measure("query", bench::share(501),
                   [&] { return bench::processorSeconds(ask) / count * 1e6; });
}

/// Of this many things a turn, and as the quick run has it.
std::size_t amount(int full) {
    return static_cast<std::size_t>(bench::share(full));
}

constexpr int turns = 31;

bench::Side microsecondsEach(std::size_t count, const std::function<double()>& seconds) {
    return [=] { return seconds() / static_cast<double>(count) * 1e6; };
}

void samples() {
    for (const auto& [row, count, bytes] :
         {std::tuple{"sample_400", 100000, 400U}, std::tuple{"sample_20k", 30000, 20000U}}) {
        const Feed feed{amount(count), bytes};
        bench::compare(row, bench::share(turns),
                       microsecondsEach(feed.count, [=] { return feedBackend({feed}); }),
                       microsecondsEach(feed.count, [=] { return feedAppsrc(feed); }));
    }
}

/// Against what the cipher costs alone and a clear sample costs.
void protection() {
    host::ClearKey keys(host::ClearKey::Interface::PerRange);
    keys.addKey(key);
    UVA_OfferDRMBackend(host::clearKeySystem, &keys);
    for (const auto& [row, count, bytes] :
         {std::tuple{"protected_1k", 50000, 1000U}, std::tuple{"protected_20k", 20000, 20000U},
          std::tuple{"protected_500k", 1000, 500000U}}) {
        const Feed clear{amount(count), bytes};
        const Feed encrypted{clear.count, bytes, true};
        bench::compare(row, bench::share(turns),
                       microsecondsEach(clear.count, [=] { return feedBackend({encrypted}); }),
                       microsecondsEach(clear.count, [=] {
                           return feedBackend({clear}) + cipherAlone(clear.count, clear.bytes);
                       }));
    }
    UVA_OfferDRMBackend(host::clearKeySystem, nullptr);
}

/// A switch and a batch of samples.
void renditions() {
    const Feed feed{amount(30000), 20000, false, true};
    bench::compare("switch", bench::share(turns),
                   microsecondsEach(feed.count / batch, [=] { return feedBackend({feed}); }),
                   microsecondsEach(feed.count / batch, [=] { return feedAppsrc(feed); }));
}

/// Processor time of the process for a sample, in microseconds, with so many players that play at
/// once; what they cost besides samples is not counted.
template <typename Of>
bench::Side manyPlayers(std::size_t players, std::size_t samples) {
    const auto feedAll = [players](std::size_t each) {
        std::vector<std::unique_ptr<Of>> all;
        for (std::size_t i = 0; i < players; ++i)
            all.push_back(std::make_unique<Of>(Feed{each, 20000}));
        return bench::processorSeconds([&] {
            for (const auto& player : all)
                player->play();
            for (const auto& player : all)
                player->wait();
        });
    };
    return [=] {
        return (feedAll(samples / players) - feedAll(1)) / static_cast<double>(samples) * 1e6;
    };
}

void elements() {
    const auto samples = amount(32 * 2000);
    const auto values = bench::interleave(bench::share(turns), {manyPlayers<Element>(32, samples),
                                                                manyPlayers<Element>(1, samples),
                                                                manyPlayers<Bare>(32, samples)});
    bench::report("elements_32", values[0], values[1]);
    bench::report("elements_32_bare", values[0], values[2]);
}

constexpr int videoAnHour = 3600 * 25;
constexpr int audioAnHour = 3600 * 47;

void hour() {
    const std::vector<Feed> feeds = {{amount(videoAnHour), 20000},
                                     {amount(audioAnHour), 400, false, false, &audioConfig}};
    const double scale = videoAnHour / static_cast<double>(feeds[0].count);
    bench::measure("hour", bench::share(11), [&] { return feedBackend(feeds) * scale; });
}

/// Resident memory after each hour of a day, against that after the first.
void day() {
    bench::Values after;
    for (int i = 0; i < 25; ++i) {
        feedBackend({{amount(videoAnHour), 400}});
        after.push_back(bench::residentMegabytes());
    }
    bench::report("day", {after.begin() + 1, after.end()}, bench::Values(24, after.front()));
}

} // namespace

int main(int argc, char** argv) {
    setenv("NOX_GST_STANDALONE", "1", 1);
    BackendInit(nullptr);
    installSinks();
    return bench::run(argc, argv,
                      {{"samples", samples},
                       {"protection", protection},
                       {"renditions", renditions},
                       {"elements", elements},
                       {"hour", hour},
                       {"day", day},
                       {"query", query}});
}
