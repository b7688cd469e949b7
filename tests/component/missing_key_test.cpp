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

host::KeyBytes keyIdOf(Round round) {
    return {static_cast<std::uint8_t>(round)};
}

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
        const auto id = keyIdOf(m_round);
        data.protection.keyId.assign(id.begin(), id.end());
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
    State state() {
        const std::lock_guard lock(m_mutex);
        return m_status.state;
    }
    std::string reason() {
        const std::lock_guard lock(m_mutex);
        return m_status.reason;
    }

private:
    void onRecord(const host::Record&) override {}
    void onStatus(const host::Status& status) override {
        const std::lock_guard lock(m_mutex);
        m_status = status;
    }
    void onSeek(double, host::SeekOutcome) override {}
    void onKeyNeeded(const host::KeyBytes&) override {}

    std::mutex m_mutex; // guards m_status
    host::Status m_status;
};

std::shared_ptr<host::BackendLibrary> library() {
    static const auto loaded = [] {
        setenv("NOX_GST_STANDALONE", "1", 1);
        gst_init(nullptr, nullptr);
        SinkWatch::instance();
        return host::BackendLibrary::load("");
    }();
    EXPECT_NE(loaded.library, nullptr) << loaded.error;
    return loaded.library;
}

struct Clip {
    const char* name;
    std::size_t frames;
    double length; ///< of the round, seconds
};

/// Frames and seconds of sound that were rendered in a round.
struct Shown {
    std::size_t frames = 0;
    double sound = 0;
};

struct Outcome {
    State state = State::Idle;
    std::string reason;
    Shown first, second;
};

Outcome play(const Clip& clip, UVADRMBackend* drm, Layout layout) {
    const auto backends = library();
    SinkWatch::instance().restart({false, false});
    UVA_OfferDRMBackend(host::clearKeySystem, drm);
    auto keys = std::make_shared<host::ClearKey>(host::ClearKey::Interface::PerRange);
    for (const auto round : {First, Second})
        keys->addKey({keyIdOf(round), {}});
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
    host::MediaElement element(backends, loop, watcher, {});
    element.openSource(std::move(source));
    element.play();
    EXPECT_TRUE(waitUntil(
        [&] { return watcher.state() == State::Ended || watcher.state() == State::Failed; },
        longBound));
    Outcome outcome;
    outcome.state = watcher.state();
    outcome.reason = watcher.reason();
    EXPECT_TRUE(element.release(longBound));
    UVA_OfferDRMBackend(host::clearKeySystem, nullptr);
    const auto roundOf = [&](double position) -> Shown& {
        return position < clip.length - 0.001 ? outcome.first : outcome.second;
    };
    for (const auto& frame : SinkWatch::instance().video().buffers)
        ++roundOf(frame.position).frames;
    for (const auto& sound : SinkWatch::instance().audio().buffers)
        roundOf(sound.position).sound += sound.duration;
    return outcome;
}

constexpr Clip clips[] = {

    {"h264-aac.mp4", 50, 2}, {"h264-aac.ts", 25, 1}, {"h265-eac3.mp4", 25, 1},
    {"mpeg4-mp3.mp4", 0, 1}, {"mpeg2-ac3.ts", 0, 1}, {"vp9-opus.webm", 25, 1},
};

/// What a host's content protection may do instead of decrypting the first round.
constexpr struct {
    const char* what;
    TestDrm::Call call;
    TestDrm::Answer answer;
    bool spoils; ///< the round
    int every = 1;
    std::size_t clearBytes = 0;
} faults[] = {
    {"refuses the key", TestDrm::Create, TestDrm::Refuses, true},
    {"refuses the key, headers are clear", TestDrm::Create, TestDrm::Refuses, true, 1, 40},
    {"makes no decrypter", TestDrm::Create, TestDrm::MakesNone, true},
    {"throws in createDecrypter", TestDrm::Create, TestDrm::Throws, true},
    {"throws in getInterface", TestDrm::GetInterface, TestDrm::ThrowsANumber, false},
    {"fails to decrypt", TestDrm::Decrypt, TestDrm::Refuses, true},
    {"fails now and then", TestDrm::Decrypt, TestDrm::Refuses, true, 3},
    {"throws in decrypt", TestDrm::Decrypt, TestDrm::ThrowsANumber, true},
    {"throws in releaseDecrypter", TestDrm::Release, TestDrm::Throws, false},
};

TEST(MissingKey, ShowsAllThatComesAfterTheKey) {
    for (const auto& clip : clips) {
        for (const auto& row : faults) {
            SCOPED_TRACE(std::string(clip.name) + " " + row.what);
            TestDrm drm;
            drm.cipher = cipher;
            drm.answers[row.call] = row.answer;
            drm.answersFor = First;
            drm.answersEvery = row.every;
            drm.hasFullSample = row.answer == TestDrm::Refuses;
            const auto outcome = play(clip, &drm, {false, row.clearBytes});
            EXPECT_EQ(outcome.state, State::Ended) << outcome.reason;
            EXPECT_EQ(drm.created, drm.released);
            if (!row.spoils) {
                EXPECT_EQ(outcome.first.frames, clip.frames);
            }
            EXPECT_EQ(outcome.second.frames, clip.frames);
            EXPECT_NEAR(outcome.second.sound, clip.length, soundTolerance);
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
            const auto outcome = play(clip, withDrm ? &drm : nullptr, {true});
            EXPECT_EQ(outcome.state, State::Ended) << outcome.reason;
            EXPECT_GE(outcome.first.frames + heldByDecoder, clip.frames);
            EXPECT_LE(outcome.first.frames, clip.frames);
            EXPECT_NEAR(outcome.first.sound, clip.length, soundTolerance);
        }
    }
}

} // namespace
