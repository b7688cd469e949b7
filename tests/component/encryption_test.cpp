#include "demux_fixture.h"
#include "host/adts.h"
#include "packet_protection.h"

extern "C" {
#include <libavutil/encryption_info.h>
}

namespace {

using host::Protection;

TEST(Encryption, IsToldOfEverySample) {
    constexpr auto audio = StreamInfo::Kind::Audio;
    constexpr auto video = StreamInfo::Kind::Video;
    const struct {
        const char* name;
        StreamInfo::Kind kind;
        std::size_t samples, clear, keyFrames;
        const char* told; ///< by what is encrypted
    } rows[] = {
        {"sintel-cenc-clear-lead.mp4", video, 120, 96, 2, "cenc 0:0 abba"},
        {"sintel-cenc-subsamples.mp4", video, 120, 0, 2, "cenc 0:0 abba"},
        {"sintel-cbcs-2-8.mp4", video, 120, 0, 2, "cbcs 2:8 abba"},
        {"bear-cbcs-video.mp4", video, 82, 30, 3, "cbcs 1:9 3132"},
        {"bear-cbcs-audio.mp4", audio, 118, 44, 118, "cbcs 0:0 3132"},
        {"bear-hevc-cenc.mp4", video, 84, 30, 3, "cenc 0:0 3132"},
        {"bbb-cenc-video.mp4", video, 122, 0, 122, "cenc 0:0 ad13"},
        {"bbb-cenc-audio.mp4", audio, 238, 0, 238, "cenc 0:0 558e"},
        {"webm-vp8-vorbis.webm", video, 182, 0, 16, "cenc 0:0 3031"},
        {"webm-vp8-vorbis.webm", audio, 261, 0, 261, "cenc 0:0 3031"},
    };
    for (const auto& row : rows) {
        const auto name = std::string("corpus:cenc/") + row.name;
        SCOPED_TRACE(name);
        if (!isHere(name))
            GTEST_SKIP() << "there is no corpus";
        auto stream = openStream(name, row.kind);
        ASSERT_NE(stream, nullptr);
        std::string error;
        const auto samples = readAll(*stream, error);
        EXPECT_EQ(error, "");
        EXPECT_EQ(samples.size(), row.samples);
        std::size_t clear = 0;
        std::size_t keyFrames = 0;
        for (const auto& sample : samples) {
            keyFrames += sample->data().keyFrame ? 1 : 0;
            const auto& protection = sample->data().protection;
            if (sample->keyId() == nullptr) {
                ++clear;
                continue;
            }
            const bool cbcs = protection.scheme == Protection::Scheme::Cbcs;
            std::ostringstream told;
            told << (cbcs ? "cbcs " : "cenc ") << sample->cryptByteBlock() << ":"
                 << sample->skipByteBlock() << std::hex << " " << int{protection.keyId.at(0)}
                 << int{protection.keyId.at(1)};
            EXPECT_EQ(told.str(), row.told);
            EXPECT_EQ(sample->keyIdSize(), cbcs ? 18U : 16U);
            EXPECT_EQ(sample->ivSize(), 16U);
            std::size_t sum = 0;
            for (const auto& part : sample->subsamples())
                sum += part.clearBytes + part.encryptedBytes;
            EXPECT_EQ(sum, sample->payloadSize());
            if (row.kind == audio && sample->config()->codec == UVAStreamConfig::CODEC_AAC) {
                EXPECT_GE(sample->subsamples().front().clearBytes, host::adtsHeaderSize);
            }
        }
        EXPECT_EQ(clear, row.clear);
        EXPECT_EQ(keyFrames, row.keyFrames);
        for (const double part : {0.9, 0.0, 0.5}) {
            ASSERT_EQ(stream->seek(part * samples.back()->pts()), "");
            const auto rest = readAll(*stream, error);
            EXPECT_EQ(error, "");
            ASSERT_LE(rest.size(), samples.size());
            for (std::size_t i = 0; i < rest.size(); ++i)
                ASSERT_EQ(rest[i]->data().protection.iv,
                          samples[samples.size() - rest.size() + i]->data().protection.iv)
                    << part << " " << i;
        }
    }
}

/// Clear (0) or with which key of the generated files, as it changes from sample to sample.
std::string keysOf(const Samples& samples) {
    std::string keys;
    for (const auto& sample : samples) {
        const auto& protection = sample->data().protection;
        const bool isClear = protection.scheme == Protection::Scheme::None;
        const char key = isClear ? '0' : protection.keyId[0] == 0 ? '1' : '2';
        EXPECT_EQ(sample->ivSize(), isClear ? 0U : 16U);
        if (keys.empty() || keys.back() != key)
            keys += key;
    }
    return keys;
}

TEST(Encryption, FollowsSampleGroupsAndNewBeginnings) {
    const struct {
        const char* name;
        const char* keys;
        double target; ///< of a seek
        const char* keysBehind;
    } rows[] = {
        {"protected/rotation.mp4", "012012", 4.2, "12"},
        {"protected/restart.mp4", "01", 4.2, "1"},
        {"protected/restart.mp4", "01", 1.2, "01"},
        {"protected/mixed.mp4", "010101010101", 2.2, "01010101"},
        {"corpus:cenc/bbb-clear-then-cenc.mp4", "02", 2.2, "2"},
    };
    for (const auto& row : rows) {
        for (const auto kind : {StreamInfo::Kind::Audio, StreamInfo::Kind::Video}) {
            SCOPED_TRACE(row.name + std::to_string(static_cast<int>(kind)));
            auto stream = isHere(row.name) ? openStream(row.name, kind) : nullptr;
            if (stream == nullptr)
                continue;
            std::string error;
            const auto all = readAll(*stream, error);
            EXPECT_EQ(error, "");
            EXPECT_EQ(keysOf(all), row.keys);
            if (std::string_view(row.name).rfind("protected/", 0) == 0)
                expectMoved(all, probe(pathOf("frag.mp4"), kind == StreamInfo::Kind::Audio), 0);
            ASSERT_EQ(stream->seek(row.target), "");
            EXPECT_NEAR(stream->info().duration, all.back()->pts() + all.back()->duration(), 0.09);
            EXPECT_EQ(keysOf(readAll(*stream, error)), row.keysBehind);
        }
    }
}

TEST(Encryption, IsOnlyTakenAsItCanBeDecrypted) {
    AVPacket packet = {};
    packet.size = 100;
    host::TrackProtection track;
    const host::KeyBytes key = {5}, vector = {6};
    track.encryption = {true, Protection::Scheme::Cbcs, 0, 3, 7, key, vector};
    Protection taken;
    EXPECT_EQ(host::takeMp4Protection(packet, &track, taken), "");
    EXPECT_EQ(taken.scheme, Protection::Scheme::Cbcs);
    EXPECT_EQ(taken.keyId, key);
    EXPECT_EQ(taken.iv, vector);
    EXPECT_EQ(taken.cryptByteBlock, 3U);
    EXPECT_EQ(taken.skipByteBlock, 7U);
    EXPECT_TRUE(taken.subsamples.empty());
    track.encryption.encrypted = false;
    Protection clear;
    EXPECT_EQ(host::takeMp4Protection(packet, &track, clear), "");
    EXPECT_EQ(host::takeMp4Protection(packet, nullptr, clear), "");
    EXPECT_EQ(clear.scheme, Protection::Scheme::None);
    track.fault = "why";
    EXPECT_EQ(host::takeMp4Protection(packet, &track, clear), "why");

    const struct {
        std::uint32_t scheme;
        std::uint32_t keyIdSize, encryptedBytes;
        const char* error;
    } rows[] = {
        {0x63656e63, 16, 100, ""},
        {0x63656e01, 16, 100,
         "the protection scheme \"cen\" is not supported, only cenc and cbcs are"},
        {0x63656e63, 15, 100,
         "the key id or the initialization vector of a sample has not 16 bytes"},
        {0x63656e63, 16, 99, "the encrypted ranges of a sample do not make up the sample"},
    };
    for (const auto& row : rows) {
        auto* info = av_encryption_info_alloc(1, row.keyIdSize, 16);
        info->scheme = row.scheme;
        info->subsamples[0].bytes_of_protected_data = row.encryptedBytes;
        std::size_t size = 0;
        auto* bytes = av_encryption_info_add_side_data(info, &size);
        av_encryption_info_free(info);
        auto* told = av_packet_alloc();
        told->size = 100;
        av_packet_add_side_data(told, AV_PKT_DATA_ENCRYPTION_INFO, bytes, size);
        Protection protection;
        EXPECT_EQ(host::takeMp4Protection(*told, nullptr, protection), row.error);
        av_packet_free(&told);
    }
}

TEST(Encryption, OfWebmFramesStandsInFrontOfThem) {
    const std::string keyId(16, 'k');
    const Bytes start = {3, 1, 2, 3, 4, 5, 6, 7, 8}; // encrypted, partitioned; the IV
    const struct {
        Bytes frame;
        std::vector<std::pair<unsigned int, unsigned int>> parts;
    } rows[] = {
        {{1, 0, 0, 0, 4, 'f', 'r', 'a', 'm', 'e'}, {{4, 1}}},
        {{2, 0, 0, 0, 1, 0, 0, 0, 3, 'f', 'r', 'a', 'm', 'e'}, {{1, 2}, {2, 0}}},
        {{3, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 5, 'f', 'r', 'a', 'm', 'e'}, {{0, 3}, {2, 0}}},
        {{1, 0, 0, 0, 6, 'f', 'r', 'a', 'm', 'e'}, {}},
        {{2, 0, 0, 0, 3, 0, 0, 0, 1, 'f', 'r', 'a', 'm', 'e'}, {}},
        {{3, 0, 0, 0}, {}},
        {{}, {}},
    };
    const auto take = [&](const std::string& id, const Bytes& frame, Protection& protection) {
        const std::uint8_t* bytes = frame.data();
        auto size = frame.size();
        const auto error = host::takeWebmProtection(id, bytes, size, protection);
        return error.empty() ? std::string(bytes, bytes + size) : error;
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.frame));
        Protection protection;
        const auto taken = take(keyId, start + row.frame, protection);
        EXPECT_EQ(taken,
                  row.parts.empty() ? "the start of an encrypted frame is damaged" : "frame");
        if (row.parts.empty())
            continue;
        EXPECT_EQ(protection.scheme, Protection::Scheme::Cenc);
        EXPECT_EQ(std::string(protection.keyId.begin(), protection.keyId.end()), keyId);
        EXPECT_EQ(protection.iv, (host::InitVector{1, 2, 3, 4, 5, 6, 7, 8}));
        ASSERT_EQ(protection.subsamples.size(), row.parts.size());
        for (std::size_t i = 0; i < row.parts.size(); ++i) {
            EXPECT_EQ(protection.subsamples[i].clearBytes, row.parts[i].first);
            EXPECT_EQ(protection.subsamples[i].encryptedBytes, row.parts[i].second);
        }
    }
    Protection whole, clear;
    EXPECT_EQ(take(keyId, Bytes{1, 1, 2, 3, 4, 5, 6, 7, 8, 'f'}, whole), "f");
    EXPECT_EQ(whole.iv[7], 8);
    EXPECT_TRUE(whole.subsamples.empty());
    EXPECT_EQ(take(keyId, Bytes{2, 'f'}, clear), "f");
    EXPECT_EQ(clear.scheme, Protection::Scheme::None);
    EXPECT_EQ(take(keyId, Bytes{1, 1, 2, 3}, clear), "the start of an encrypted frame is damaged");
    EXPECT_EQ(take(keyId, {}, clear), "the start of an encrypted frame is damaged");
    EXPECT_EQ(take("short", Bytes(10, 1), clear), "the key id of the track has not 16 bytes");
}

} // namespace
