// Samples that cannot be decrypted, through the parsers and decoders that playback picks: whatever
// the host's content protection does, the process lives, and what can be decrypted later is shown.

#include "host/backend_library.h"
#include "host/event_loop.h"
#include "host/media_element.h"

#include "support/media_host.h"
#include "support/sink_watch.h"
#include "support/wait_until.h"

#include <gtest/gtest.h>

namespace {

using host::State;
using support::SinkWatch;
using support::TestDrm;
using support::waitUntil;

constexpr auto longBound = std::chrono::seconds(60);
constexpr double soundTolerance = 0.1; ///< seconds

constexpr std::uint8_t cipher = 0x5A;

/// One of the two rounds that a clip is played: each has its own key.
enum Round : char { First = '1', Second = '2' };

/// What of a clip is not encrypted.
struct Layout {
    bool clearLead = false;     ///< the first round
    std::size_t clearBytes = 0; ///< the beginning of each sample
};

/// A clear stream twice, the second round behind the first, encrypted.
class TwiceEncrypted final : public host::SampleStream {
public:
    TwiceEncrypted(std::unique_ptr<host::SampleStream> clear, double length, Layout layout)
        : m_clear(std::move(clear)), m_length(length), m_layout(layout) {}

    const host::StreamInfo& info() const override { return m_clear->info(); }
    std::string seek(double seconds) override { return m_clear->seek(seconds); }
    void interrupt() override { m_clear->interrupt(); }
    Batch read(std::size_t count) override {
        auto batch = m_clear->read(count);
        for (auto& sample : batch.samples)
            sample = change(sample->data());
        if (batch.ended && m_round == First) {
            m_round = Second;
            batch.error = m_clear->seek(0);
            batch.ended = false;
        }
        return batch;
    }

private:
    std::unique_ptr<host::Sample> change(host::SampleData data) const {
        for (double* time : {&data.pts, &data.dts})
            *time += m_round == Second ? m_length : 0;
        if (m_round == First && m_layout.clearLead)
            return std::make_unique<host::Sample>(data);
        auto bytes = std::make_shared<std::vector<std::uint8_t>>(data.payload.get(),
                                                                 data.payload.get() + data.size);
        const auto clear = std::min<std::size_t>(data.size, m_layout.clearBytes);
        for (std::size_t i = clear; i < data.size; ++i)
            (*bytes)[i] ^= cipher;
        data.payload = {bytes, bytes->data()};
        data.protection.subsamples = {
            {static_cast<std::uint32_t>(clear), static_cast<std::uint32_t>(data.size - clear)}};
        data.protection.scheme = host::Protection::Scheme::Cenc;
        data.protection.keyId.assign(1, m_round);
        data.protection.iv.assign(8, 0);
        return std::make_unique<host::Sample>(data);
    }

    const std::unique_ptr<host::SampleStream> m_clear;
    const double m_length;
    const Layout m_layout;
    Round m_round = First;
};

class Watcher final : public host::Observer {
public:
    host::Status status() {
        const std::lock_guard lock(m_mutex);
        return m_status;
    }

private:
    void onRecord(const host::Record&) override {}
    void onStatus(const host::Status& status) override {
        const std::lock_guard lock(m_mutex);
        m_status = status;
    }
    void onSeek(double, host::SeekOutcome) override {}

    std::mutex m_mutex; // guards m_status
    host::Status m_status;
};

constexpr struct Clip {
    const char* name;
    std::size_t frames;
    double length; ///< of the round, seconds
} clips[] = {
    {"h264-aac.mp4", 50, 2}, {"h264-aac.ts", 25, 1}, {"h265-eac3.mp4", 25, 1},
    {"mpeg4-mp3.mp4", 0, 1}, {"mpeg2-ac3.ts", 0, 1}, {"vp9-opus.webm", 25, 1},
};

/// Frames and seconds of sound that were rendered in a round.
struct Shown {
    std::size_t frames = 0;
    double sound = 0;
};

/// Of both rounds.
std::array<Shown, 2> play(const Clip& clip, UVADRMBackend* drm, Layout layout) {
    static const auto loaded = [] {
        setenv("NOX_GST_STANDALONE", "1", 1);
        gst_init(nullptr, nullptr);
        SinkWatch::instance();
        return host::BackendLibrary::load("");
    }();
    EXPECT_NE(loaded.library, nullptr) << loaded.error;
    SinkWatch::instance().restart({false, false});
    UVA_OfferDRMBackend(host::clearKeySystem, drm);
    auto keys = std::make_shared<host::ClearKey>(host::ClearKey::Interface::PerRange);
    keys->addKey({{First}, {}});
    keys->addKey({{Second}, {}});
    host::MediaSource source;
    source.keys = keys; // so the host feeds what they are needed for
    source.open = [=](const std::atomic<bool>& cancelled) {
        auto media = host::openMedia(TEST_MEDIA_DIR "/" + std::string(clip.name), cancelled);
        for (auto& stream : media.streams)
            stream = std::make_unique<TwiceEncrypted>(std::move(stream), clip.length, layout);
        return media;
    };
    const auto loop = std::make_shared<host::EventLoop>();
    Watcher watcher;
    host::MediaElement element(loaded.library, loop, watcher, {});
    element.openSource(std::move(source));
    element.play();
    const auto is = [&](State state) { return watcher.status().state == state; };
    EXPECT_TRUE(waitUntil([&] { return is(State::Ended) || is(State::Failed); }, longBound));
    EXPECT_TRUE(is(State::Ended)) << watcher.status().reason;
    EXPECT_TRUE(element.release(longBound));
    UVA_OfferDRMBackend(host::clearKeySystem, nullptr);
    std::array<Shown, 2> shown;
    const auto roundOf = [&](double position) -> Shown& {
        return shown[position < clip.length - 0.001 ? 0 : 1];
    };
    for (const auto& frame : SinkWatch::instance().video().buffers)
        ++roundOf(frame.position).frames;
    for (const auto& sound : SinkWatch::instance().audio().buffers)
        roundOf(sound.position).sound += sound.duration;
    return shown;
}

/// What a host's content protection may do instead of decrypting the first round.
constexpr struct {
    const char* what;
    TestDrm::Call call;
    int every = 1;
    std::size_t clearBytes = 0;
} faults[] = {
    {"refuses the key", TestDrm::Create},
    {"refuses the key, headers are clear", TestDrm::Create, 1, 40},
    {"fails to decrypt", TestDrm::Decrypt},
    {"fails now and then", TestDrm::Decrypt, 3},
};

TEST(MissingKey, ShowsAllThatComesAfterTheKey) {
    for (const auto& clip : clips) {
        for (const auto& row : faults) {
            SCOPED_TRACE(std::string(clip.name) + " " + row.what);
            TestDrm drm;
            drm.cipher = cipher;
            drm.answers[row.call] = TestDrm::Refuses;
            drm.answersFor = First;
            drm.answersEvery = row.every;
            drm.hasFullSample = true;
            const auto second = play(clip, &drm, {false, row.clearBytes})[1];
            EXPECT_EQ(drm.created, drm.released);
            EXPECT_EQ(second.frames, clip.frames);
            EXPECT_NEAR(second.sound, clip.length, soundTolerance);
        }
    }
}

TEST(MissingKey, ShowsAClearLead) {
    constexpr std::size_t heldByDecoder = 2; // frames, lost with what cannot be decoded behind them
    for (const auto& clip : clips) {
        for (const bool withDrm : {true, false}) {
            SCOPED_TRACE(std::string(clip.name) + (withDrm ? "" : " without a DRM"));
            TestDrm drm;
            drm.cipher = cipher;
            drm.answers[TestDrm::Create] = TestDrm::Refuses;
            drm.answersFor = Second;
            const auto first = play(clip, withDrm ? &drm : nullptr, {true})[0];
            EXPECT_GE(first.frames + heldByDecoder, clip.frames);
            EXPECT_LE(first.frames, clip.frames);
            EXPECT_NEAR(first.sound, clip.length, soundTolerance);
        }
    }
}

} // namespace
