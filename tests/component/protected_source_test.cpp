// Encrypted samples of media sources: what is decrypted, what goes on encrypted, and what a release
// waits for.

#include "media_source.h"
#include "support/log_capture.h"

#include <atomic>
#include <thread>

namespace {

using support::LogCapture;
using support::TestDrm;

class ProtectedSourceTest : public MediaSourceTest {
protected:
    ~ProtectedSourceTest() override { UVA_OfferDRMBackend("org.test", nullptr); }

    void offer(TestDrm& drm, std::uint64_t value = 0) {
        UVA_OfferDRMBackend("org.test", &drm);
        UVAKeySystemConfig config;
        config.keySystemId = "org.test";
        config.client = value;
        backend->setKeySystem(config);
    }
    TestSample* encrypted(const char* key, std::vector<UVASample::Subsample> map) {
        auto* sample = new TestSample(0, frame, &video);
        sample->key = {key, key + 1};
        sample->map = std::move(map);
        return sample;
    }
    static std::vector<guint8> bytesOf(std::size_t index) {
        return received(videoSink, index + 1).buffers.at(index).bytes;
    }
};

TEST_F(ProtectedSourceTest, RangesAreDecryptedOrTheSampleStaysEncrypted) {
    TestDrm drm;
    drm.answers[TestDrm::Create] = TestDrm::Refuses;
    drm.answersFor = "z";
    LogCapture log(gst_backend_debug);
    open(false);
    playUntilAsked(1);
    write(videoId, {encrypted("a", {{10, 90}})});
    EXPECT_EQ(bytesOf(0).at(50), 0x55) << "no key system yet";
    EXPECT_TRUE(log.has("ERROR ***E: no DRM backend set"));

    offer(drm, 4711);
    write(videoId,
          {encrypted("a", {{10, 40}, {50, 0}}), encrypted("a", {{0, 100}}),
           encrypted("b", {{0, 100}}), encrypted("z", {{0, 100}}), encrypted("a", {{0, 101}}),
           encrypted("a", {{60, 10}, {0xFFFFFFE0, 20}}), encrypted("a", {{16, 0}})});
    const auto first = bytesOf(1);
    EXPECT_EQ(first.at(9), 0x55);
    EXPECT_EQ(first.at(10), 0xAA);
    EXPECT_EQ(first.at(49), 0xAA);
    EXPECT_EQ(first.at(50), 0x55);
    EXPECT_EQ(bytesOf(2).at(0), 0xAA);
    EXPECT_EQ(bytesOf(3).at(0), 0xAA);
    for (const std::size_t refused : {4U, 5U, 6U}) // no such key, ranges past the end
        EXPECT_EQ(bytesOf(refused), std::vector<guint8>(100, 0x55)) << refused;
    EXPECT_EQ(bytesOf(7).at(0), 0x55) << "nothing encrypted in it";
    EXPECT_TRUE(log.has("ERROR decryption failed"));
    owner.reset();
    EXPECT_EQ(drm.takeJournal(), (std::vector<std::string>{
                                     "create a 4711", "40 iv 8 first last", "100 iv 8 first last",
                                     "release", "create b 4711", "100 iv 8 first last", "release",
                                     "create z 4711", "create a 4711", "release"}))
        << "one decrypter a change of the key";
}

TEST_F(ProtectedSourceTest, AnotherKeySystemTakesOver) {
    TestDrm first;
    TestDrm second;
    UVA_OfferDRMBackend("org.other", &second);
    open(false);
    playUntilAsked(1);
    double time = 2;
    for (const char* id : {"org.test", "org.other", "org.none", "org.test"}) {
        offer(first, static_cast<std::uint64_t>(time));
        UVAKeySystemConfig config;
        config.keySystemId = id;
        config.client = static_cast<std::uint64_t>(time);
        backend->setKeySystem(config);
        auto* sample = encrypted("a", {{0, 100}});
        sample->presented = time;
        sample->decoded = time - 0.5;
        write(videoId, {sample});
        received(videoSink, static_cast<std::size_t>(time) - 1);
        ++time;
    }
    owner.reset();
    UVA_OfferDRMBackend("org.other", nullptr);
    using Lines = std::vector<std::string>;
    EXPECT_EQ(first.takeJournal(), (Lines{"create a 2", "100 iv 8 first last", "release",
                                          "create a 5", "100 iv 8 first last", "release"}));
    EXPECT_EQ(second.takeJournal(), (Lines{"create a 3", "100 iv 8 first last", "release"}));
    const auto seen = RecordingSinks::of(videoSink).buffers;
    ASSERT_EQ(seen.size(), 4U);
    for (std::size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i].bytes, std::vector<guint8>(100, i == 2 ? 0x55 : 0xAA)) << i;
        EXPECT_EQ(seen[i].pts, (i + 2) * GST_SECOND);
        EXPECT_EQ(seen[i].dts, (i + 2) * GST_SECOND - GST_SECOND / 2);
        EXPECT_EQ(seen[i].duration, GST_SECOND / 25);
        EXPECT_EQ(seen[i].discont, i == 0);
    }
}

// While one thread decrypts, another that asks or writes neither waits nor overtakes it.
TEST_F(ProtectedSourceTest, ASecondThreadLeavesTheFeedingToTheFirst) {
    TestDrm drm;
    drm.holds = true;
    open(false);
    offer(drm);
    playUntilAsked(1);
    std::thread feeding([&] { write(videoId, {encrypted("a", {{0, 100}})}); });
    ASSERT_TRUE(waitUntil([&] { return drm.decrypts == 1; }));
    const auto appsrc = GstPtr<GstElement>::sink(gst_element_factory_make("appsrc", "appsrc_1"));
    const auto asks = [&] {
        client.clear();
        GstNoxBackend::need_data_cb(GST_APP_SRC(appsrc.get()), 1, backend);
        return client.count(UVAEvent::NeedMSEData) == 1;
    };
    EXPECT_TRUE(asks()) << "nothing is left";
    write(videoId, {encrypted("b", {{0, 100}})});
    EXPECT_FALSE(asks());
    EXPECT_EQ(seek(3), 0) << "what is decrypted now is of no use any more";
    EXPECT_TRUE(isAsked());
    drm.holds = false;
    feeding.join();
    EXPECT_EQ(drm.decrypts, 1);
    write(videoId, {encrypted("c", {{0, 100}})});
    EXPECT_EQ(received(videoSink, 1).count, 1U);
    EXPECT_EQ(drm.decrypts, 2);
    owner.reset();
}

TEST_F(ProtectedSourceTest, NothingGoesUnderAThreadThatWrites) {
    for (const bool all : {false, true}) {
        TestDrm drm;
        drm.holds = true;
        client.clear();
        open(false);
        offer(drm);
        playUntilAsked(1);
        std::thread writing([&] {
            write(videoId, {encrypted("a", {{0, 100}}), encrypted("a", {{0, 100}})});
        });
        ASSERT_TRUE(waitUntil([&] { return drm.decrypts == 1; }));
        std::atomic<bool> isGone{false};
        std::thread removing([&] {
            if (all)
                owner.reset();
            else
                backend->removeSource(videoId);
            isGone = true;
        });
        EXPECT_FALSE(waitUntil([&] { return isGone.load(); }, std::chrono::milliseconds(200)));
        drm.holds = false;
        writing.join();
        removing.join();
        EXPECT_EQ(drm.decrypts, 1);
        EXPECT_EQ(drm.released, 1);
    }
}

TEST_F(ProtectedSourceTest, AReleaseWaitsForOneSample) {
    TestDrm drm;
    drm.holds = true;
    offer(drm);
    answerWith([&](unsigned int) {
        if (drm.decrypts == 0)
            write(videoId, {encrypted("a", {{0, 100}}), encrypted("a", {{0, 100}}),
                            encrypted("a", {{0, 100}})});
    });
    open(false);
    backend->play();
    ASSERT_TRUE(waitUntil([&] { return drm.decrypts == 1; }));
    std::thread releasing([&] { owner.reset(); });
    EXPECT_TRUE(waitUntil([] { return TestSample::alive() == 1; })) << "the others are dropped";
    drm.holds = false;
    releasing.join();
    EXPECT_EQ(drm.decrypts, 1);
    EXPECT_EQ(drm.released, 1);
}

} // namespace
