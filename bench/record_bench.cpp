// What a record costs: a call, a sample, and a second of playback, against a backend that does
// nothing at all.

#include "bench_support.h"
#include "record_file.h"
#include "recorder.h"
#include "recording_backend.h"
#include "uva/uva_event.h"
#include "uva/uva_sample.h"

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

template <typename Answer>
Answer answer() {
    return {};
}
template <>
UVATime answer() {
    return {0, 1, 0, 0};
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-parameter" // the names are the interface's
/// Answers at once; takes samples and drops them.
class Idle : public UVAMediaBackend {
public:
    using UVAMediaBackend::UVAMediaBackend;
#define OPERATION(key, answers, result, name, parameters, ...)                                     \
    result name parameters override {                                                              \
        return answer<result>();                                                                   \
    }
#include "operations.def"
#undef OPERATION
};
#pragma GCC diagnostic pop

class Dropping final : public Idle {
public:
    using Idle::Idle;
    int writeData(UVAEvent* event, unsigned int, WriteDataStatus) override {
        delete event;
        return Success;
    }
};

class Deaf final : public UVAClient {
public:
    void deliverEvent(UVAEvent* event) override { delete event; }
};

struct Config final : UVAStreamConfig {
    Config() {
        codec = CODEC_H264;
        width = 1920;
        height = 1080;
    }
};

std::vector<std::uint8_t> payload(20000, 0x5a);
const Config config;

class Sample final : public UVASample {
public:
    explicit Sample(std::size_t size) : m_size(size) {}
    const std::uint8_t* payload() const override { return ::payload.data(); }
    std::size_t payloadSize() const override { return m_size; }
    double pts() const override { return 0; }
    double dts() const override { return 0; }
    double duration() const override { return 0.04; }
    const UVAStreamConfig* config() const override { return &::config; }
    const std::vector<Subsample>& subsamples() const override { return m_none; }

private:
    const std::size_t m_size;
    const std::vector<Subsample> m_none;
};

/// A record in a file of its own, which goes with it.
class Recording {
public:
    explicit Recording(record::Payloads payloads = record::Payloads::Full) {
        char name[] = "/var/tmp/record_bench-XXXXXX";
        const int made = mkstemp(name);
        std::string error;
        auto file = record::RecordFile::create(name, payloads, error);
        if (made < 0 || file == nullptr)
            bench::fail(error);
        close(made);
        unlink(name);
        m_recorder = std::make_unique<record::Recorder>(std::move(file), payloads);
        m_backend = std::make_unique<record::RecordingBackend>(
            UVABackend::VideoElement, m_idle,
            std::make_shared<record::RecordingClient>(*m_recorder, 1, &m_deaf));
    }
    UVAMediaBackend& backend() { return *m_backend; }

private:
    Deaf m_deaf;
    Dropping m_idle{UVABackend::VideoElement, &m_deaf};
    std::unique_ptr<record::Recorder> m_recorder;
    std::unique_ptr<record::RecordingBackend> m_backend;
};

void ask(UVAMediaBackend& backend, int count) {
    double seconds = 0;
    for (int i = 0; i < count; ++i)
        backend.getDuration(seconds);
}

void feed(UVAMediaBackend& backend, int count, std::size_t size) {
    for (int i = 0; i < count; ++i) {
        auto* const event = new NeedMSEDataEvent(1, 1);
        event->samples = new UVASample* [2] { new Sample(size), nullptr };
        backend.writeData(event, 0, UVABackend::Data);
    }
}

constexpr int turns = 31;

constexpr int atATime = 30; // as a source asks for samples

/// Microseconds for one of `count`, of the thread that makes the calls: some at a time, with a
/// pause in which others have time, which comes many times as often as in playback.
template <typename What>
double each(int count, What what) {
    double seconds = 0;
    for (int done = 0; done < count; done += atATime) {
        seconds += bench::processorSeconds(what, CLOCK_THREAD_CPUTIME_ID);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return seconds / count * 1e6;
}

template <typename What>
void compare(const char* row, record::Payloads payloads, What what) {
    Deaf deaf;
    Dropping plain(UVABackend::VideoElement, &deaf);
    const int count = atATime * bench::share(20, 1);
    bench::compare(
        row, bench::share(turns),
        [&] {
            Recording recording(payloads);
            std::this_thread::sleep_for(std::chrono::milliseconds(50)); // its thread begins
            return each(count, [&] { what(recording.backend()); });
        },
        [&] { return each(count, [&] { what(plain); }); });
}

void costs() {
    using record::Payloads;
    const auto call = [](UVAMediaBackend& backend) { ask(backend, atATime); };
    const auto sample = [](UVAMediaBackend& backend) { feed(backend, atATime, 20000); };
    compare("record_call", Payloads::Full, call);
    compare("record_sample", Payloads::Full, sample);
    compare("record_digest", Payloads::Digest, sample);
}

/// Percent of a core: each second 25 pictures of 20 kB, 47 frames of sound, and as many calls.
void core() {
    const int seconds = bench::share(200, 10);
    bench::measure("record_core", bench::share(turns), [=] {
        Recording recording;
        return bench::processorSeconds([&] {
                   for (int i = 0; i < seconds; ++i) {
                       feed(recording.backend(), 25, 20000);
                       feed(recording.backend(), 47, 400);
                       ask(recording.backend(), 100);
                   }
               }) /
               seconds * 100;
    });
}

} // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv, {{"costs", costs}, {"core", core}});
}
