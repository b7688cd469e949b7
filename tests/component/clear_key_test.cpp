#include "host/clear_key.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <functional>
#include <future>
#include <numeric>
#include <set>

namespace {

using host::ClearKey;
using Bytes = std::vector<std::uint8_t>;
using Ranges = std::vector<UVADRMFullSampleDecrypter::Subsample>;
using Map = std::vector<std::pair<std::uint32_t, std::uint32_t>>; ///< clear, encrypted bytes
using Scheme = host::Protection::Scheme;

constexpr auto interfaces = {ClearKey::Interface::PerRange, ClearKey::Interface::FullSample};

constexpr host::KeyPair pair = {{0xa1, 0xb2}, {0x2b, 0x7e, 0x15}};

Bytes fromHex(const std::string& text) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    return bytes;
}

/// No zero byte, so no start code either.
Bytes someBytes(std::size_t size) {
    Bytes bytes(size);
    std::generate(bytes.begin(), bytes.end(),
                  [next = 0]() mutable { return static_cast<std::uint8_t>(1 + 7 * next++ % 255); });
    return bytes;
}

Bytes reference(Scheme scheme, unsigned int crypt = 0, unsigned int skip = 0) {
    const host::KeyReference told({scheme, pair.id, {}, crypt, skip, {}});
    return {told.data(), told.data() + told.size()};
}

template <typename Found>
Found* find(ClearKey& keys) {
    return static_cast<Found*>(keys.getInterface(Found::interfaceName));
}

/// The way a backend goes over a sample: the vector with the first range that has bytes only.
int decryptRanges(UVADRMDecrypter& decrypter, const Bytes& iv, Bytes& data, const Ranges& ranges) {
    bool ivPassed = false;
    for (std::size_t i = 0; i < ranges.size(); ++i) {
        if (ranges[i].length == 0)
            continue;
        auto* const begin = data.data() + ranges[i].offset;
        UVADRMDecrypter::Input input{ivPassed ? nullptr : iv.data(),
                                     ivPassed ? 0 : iv.size(),
                                     begin,
                                     ranges[i].length,
                                     i == 0,
                                     i + 1 == ranges.size()};
        if (const int result = decrypter.decrypt(input, {begin, ranges[i].length}); result != 0)
            return result;
        ivPassed = true;
    }
    return 0;
}

/// Decrypts with a decrypter of its own, over the interface that is offered.
int decrypt(ClearKey& keys, const Bytes& keyId, const Bytes& iv, Bytes& data,
            const Ranges& ranges) {
    UVADRMDecrypter* decrypter = nullptr;
    if (keys.createDecrypter(decrypter, keyId.data(), keyId.size(), 0) != 1)
        return -100;
    auto* const full = find<UVADRMFullSampleDecrypter>(keys);
    const int result =
        full == nullptr
            ? decryptRanges(*decrypter, iv, data, ranges)
            : full->decrypt(decrypter, {data.data(), data.size(), iv.data(), iv.size(), ranges});
    keys.releaseDecrypter(decrypter);
    return result;
}

Bytes encryptBlock(const Bytes& block) {
    Bytes out(16);
    int size = 0;
    auto* const context = EVP_CIPHER_CTX_new();
    EXPECT_EQ(EVP_EncryptInit_ex(context, EVP_aes_128_ecb(), nullptr, pair.key.data(), nullptr), 1);
    EXPECT_EQ(EVP_EncryptUpdate(context, out.data(), &size, block.data(), 16), 1);
    EVP_CIPHER_CTX_free(context);
    return out;
}

/// Encryption as the standard describes it, byte by byte and block by block.
Bytes encryptCenc(Bytes data, Bytes counter, const Ranges& ranges) {
    counter.resize(16);
    std::size_t position = 0;
    Bytes stream;
    for (const auto& range : ranges) {
        for (std::size_t i = 0; i < range.length; ++i, ++position) {
            if (position % 16 == 0) {
                stream = encryptBlock(counter);
                for (std::size_t digit = 15; digit >= 8 && ++counter[digit] == 0; --digit) {
                }
            }
            data[range.offset + i] ^= stream[position % 16];
        }
    }
    return data;
}

Bytes encryptCbcs(Bytes data, const Bytes& iv, const Ranges& ranges, unsigned int crypt,
                  unsigned int skip) {
    for (const auto& range : ranges) {
        Bytes chain = iv;
        for (std::size_t block = 0; (block + 1) * 16 <= range.length; ++block) {
            const std::size_t inPeriod = skip > 0 ? block % (crypt + skip) : 0;
            const std::size_t runEnd = (block - inPeriod + crypt) * 16; // a run cut short is clear
            if (skip > 0 && (inPeriod >= crypt || runEnd > range.length))
                continue;
            const auto at = data.begin() + static_cast<std::ptrdiff_t>(range.offset + block * 16);
            std::transform(chain.begin(), chain.end(), at, chain.begin(), std::bit_xor<>());
            chain = encryptBlock(chain);
            std::copy(chain.begin(), chain.end(), at);
        }
    }
    return data;
}

TEST(ClearKeyCipher, FollowsRangesCountersAndPatterns) {
    const auto iv16 = fromHex("000102030405060708090a0b0c0d0e0f");
    const Ranges odd = {{3, 5}, {8, 0}, {8, 18}, {40, 961}, {90001, 9999}};
    const struct {
        const char* what;
        Bytes iv;
        unsigned int crypt, skip;
        Ranges ranges;
        bool cbcs;
    } cases[] = {
        {"half a counter", fromHex("fffffffffffffffe"), 0, 0, odd, false},
        {"whole counter", iv16, 0, 0, odd, false},
        {"counter wraps at once", fromHex("00112233445566ffffffffffffffffff"), 0, 0, odd, false},
        {"counter wraps later", fromHex("00112233445566fffffffffffffffffd"), 0, 0, odd, false},
        {"first range empty", fromHex("0102030405060708"), 0, 0, {{0, 0}, {7, 100}}, false},
        {"last range empty", fromHex("0102030405060708"), 0, 0, {{7, 100}, {200, 0}}, false},
        {"no pattern", iv16, 0, 0, odd, true},
        {"nothing skipped", iv16, 10, 0, odd, true},
        {"video", iv16, 1, 9, {{0, 15}, {16, 16}, {40, 99960}}, true},
        {"run cut short", iv16, 5, 5, {{0, 16 * 13 + 7}, {300, 16 * 23}}, true},
        {"no whole run", iv16, 2, 8, {{0, 31}, {40, 17}, {100, 16 * 12}}, true},
        {"largest pattern", iv16, 255, 255, {{1, 99998}}, true},
    };
    const auto clear = someBytes(100000);
    for (const auto interface : interfaces) {
        ClearKey keys(interface);
        keys.addKey(pair);
        for (const auto& row : cases) {
            SCOPED_TRACE(row.what);
            auto data = row.cbcs ? encryptCbcs(clear, row.iv, row.ranges, row.crypt, row.skip)
                                 : encryptCenc(clear, row.iv, row.ranges);
            ASSERT_NE(data, clear);
            const auto keyId =
                reference(row.cbcs ? Scheme::Cbcs : Scheme::Cenc, row.crypt, row.skip);
            EXPECT_EQ(decrypt(keys, keyId, row.iv, data, row.ranges), 0);
            EXPECT_TRUE(data == clear);
        }
    }
}

/// A stream of samples that are there.
class ReadyStream final : public host::SampleStream {
public:
    ReadyStream(host::StreamInfo::Kind kind, std::vector<host::SampleData> samples)
        : m_samples(std::move(samples)) {
        m_info.kind = kind;
    }
    const host::StreamInfo& info() const override { return m_info; }
    Batch read(std::size_t count) override {
        Batch batch;
        for (; count > 0 && m_next < m_samples.size(); --count)
            batch.samples.push_back(std::make_unique<host::Sample>(m_samples[m_next++]));
        batch.ended = m_next == m_samples.size();
        return batch;
    }
    std::string seek(double) override {
        m_next = 0;
        return {};
    }
    void interrupt() override {}

private:
    host::StreamInfo m_info;
    const std::vector<host::SampleData> m_samples;
    std::size_t m_next = 0;
};

/// `payload` outlives it.
host::SampleData clearSample(const Bytes& payload, std::shared_ptr<UVAStreamConfig> config) {
    host::SampleData sample;
    sample.payload = {std::shared_ptr<void>(), payload.data()};
    sample.size = payload.size();
    sample.pts = 1.5;
    sample.config = std::move(config);
    return sample;
}

/// NAL units of 10, 200, 8 and 40 bytes with these first bytes behind prefixes of as many bytes:
/// lengths, or start codes. Only the second one is a slice with something to hide.
Bytes nalUnits(const Bytes& firstBytes, std::size_t prefix, bool startCodes) {
    const std::size_t sizes[] = {10, 200, 8, 40};
    Bytes data;
    for (std::size_t i = 0; i < std::size(sizes); ++i) {
        data.insert(data.end(), prefix - 1, 0);
        data.push_back(startCodes ? 1 : static_cast<std::uint8_t>(sizes[i]));
        data.push_back(firstBytes[i]);
        const auto rest = someBytes(sizes[i] - 1);
        data.insert(data.end(), rest.begin(), rest.end());
    }
    return data;
}

struct ProtectCase {
    const char* what;
    int codec;
    Bytes codecData;
    Bytes payload;
    Map cenc, cbcs;
};

std::vector<ProtectCase> protectCases() {
    const auto avcC = fromHex("0142c01effe1000000");
    Bytes hvcC(23);
    hvcC[21] = 0xf1;
    const Bytes avc = {0x67, 0x65, 0x06, 0x41}, hevc = {0x40, 0x26, 0x4e, 0x02};
    const auto avc1 = nalUnits(avc, 4, false), avc3 = nalUnits(avc, 4, true);
    const auto hvc1 = nalUnits(hevc, 2, false), hvc3 = nalUnits(hevc, 3, true);
    auto lying = avc1;
    lying[14] = 0x7f;
    auto adts = someBytes(107);
    adts[0] = 0xff;
    adts[1] = 0xf1;
    const auto crcAdts = fromHex("fff8010203040506");
    const auto unit = [](std::uint8_t first, std::size_t size, const Bytes& prefix) {
        auto bytes = someBytes(prefix.size() + size);
        std::copy(prefix.begin(), prefix.end(), bytes.begin());
        bytes[prefix.size()] = first;
        return bytes;
    };
    const Bytes code = {0, 0, 1}, oneByte = fromHex("01000000fc"), two = fromHex("01000000fd");
    return {
        {"H.264, lengths", 2001, avcC, avc1, {{122, 96}, {56, 0}}, {{114, 104}, {56, 0}}},
        {"H.264, start codes", 2001, {}, avc3, {{122, 96}, {56, 0}}, {{114, 104}, {56, 0}}},
        {"H.264, lying length", 2001, avcC, lying, {{274, 0}}, {{274, 0}}},
        {"H.264, cut length", 2001, avcC, {0, 0, 1}, {{3, 0}}, {{3, 0}}},
        {"H.264, bare start code", 2001, {}, {0, 0, 1}, {{3, 0}}, {{3, 0}}},
        {"H.265, lengths", 2002, hvcC, hvc1, {{118, 96}, {52, 0}}, {{110, 104}, {52, 0}}},
        {"H.265, start codes", 2002, {}, hvc3, {{120, 96}, {54, 0}}, {{112, 104}, {54, 0}}},
        {"H.264, a byte of length", 2001, oneByte, unit(0x25, 120, {120}), {{105, 16}}, {{97, 24}}},
        {"H.264, cut", 2001, two, unit(0x25, 119, {0, 120}), {{121, 0}}, {{121, 0}}},
        {"H.264, first type", 2001, {}, unit(0x21, 112, code), {{99, 16}}, {{99, 16}}},
        {"H.264, shortest", 2001, {}, unit(0x21, 111, code), {{114, 0}}, {{114, 0}}},
        {"H.264, no type", 2001, {}, unit(0x20, 112, code), {{115, 0}}, {{115, 0}}},
        {"H.265, last type", 2002, {}, unit(0x3e, 120, code), {{107, 16}}, {{99, 24}}},
        {"H.265, no slice", 2002, {}, unit(0x40, 120, code), {{123, 0}}, {{123, 0}}},
        {"AAC, ADTS cut", 1001, {}, fromHex("fff1"), {{2, 0}}, {{2, 0}}},
        {"AAC, ADTS with a checksum", 1001, {}, unit(9, 50, {0xff, 0xf8}), {{9, 43}}, {{9, 43}}},
        {"AAC, ADTS of MPEG-2", 1001, {}, unit(9, 50, {0xff, 0xf9}), {{7, 45}}, {{7, 45}}},
        {"AAC, no layer of ADTS", 1001, {}, unit(9, 50, {0xff, 0xfb}), {{0, 52}}, {{0, 52}}},
        {"VP9", 2008, {}, someBytes(1000), {{72, 928}}, {{64, 936}}},
        {"VP8", 2007, {}, someBytes(31), {{31, 0}}, {{31, 0}}},
        {"AAC", 1001, fromHex("1190"), someBytes(99), {{0, 99}}, {{0, 99}}},
        {"AAC, ADTS", 1014, {}, adts, {{7, 100}}, {{7, 100}}},
        {"AAC, ADTS with nothing in it", 1001, {}, crcAdts, {{8, 0}}, {{8, 0}}},
        {"empty", 1005, {}, {}, {{0, 0}}, {{0, 0}}},
    };
}

/// Protects a stream with the payload twice over, checks what came out, decrypts it again.
void checkProtection(const ProtectCase& row, Scheme scheme, ClearKey& keys) {
    const auto config = std::make_shared<UVAStreamConfig>();
    config->codec = row.codec;
    config->codecData = row.codecData.empty() ? nullptr : row.codecData.data();
    config->codecDataSize = row.codecData.size();
    const auto clear = clearSample(row.payload, config);
    const bool isVideo = row.codec >= 2000;
    auto stream =
        host::protect(std::make_unique<ReadyStream>(isVideo ? host::StreamInfo::Kind::Video
                                                            : host::StreamInfo::Kind::Audio,
                                                    std::vector{clear, clear}),
                      scheme, pair);

    auto samples = std::move(stream->read(5).samples);
    ASSERT_EQ(samples.size(), 2U);
    EXPECT_EQ(stream->seek(0), "");
    samples.push_back(std::move(stream->read(1).samples.at(0)));
    std::set<Bytes> ivs;
    for (const auto& sample : samples) {
        const Bytes iv(sample->iv(), sample->iv() + sample->ivSize());
        ivs.insert(iv);
        Bytes data(sample->payload(), sample->payload() + sample->payloadSize());
        Ranges ranges;
        Map map;
        std::uint32_t at = 0;
        std::size_t encrypted = 0;
        for (const auto& entry : sample->subsamples()) {
            map.emplace_back(entry.clearBytes, entry.encryptedBytes);
            ranges.push_back({at + entry.clearBytes, entry.encryptedBytes});
            EXPECT_TRUE(std::equal(data.begin() + at, data.begin() + at + entry.clearBytes,
                                   row.payload.begin() + at));
            at += entry.clearBytes + entry.encryptedBytes;
            encrypted += entry.encryptedBytes;
        }
        EXPECT_EQ(map, scheme == Scheme::Cenc ? row.cenc : row.cbcs);
        EXPECT_EQ(at, row.payload.size());
        EXPECT_EQ(data != row.payload, encrypted > 0);
        EXPECT_EQ(sample->pts(), 1.5);
        EXPECT_EQ(sample->cryptByteBlock(), scheme == Scheme::Cbcs && isVideo ? 1U : 0U);

        const Bytes keyId(sample->keyId(), sample->keyId() + sample->keyIdSize());
        EXPECT_EQ(decrypt(keys, keyId, iv, data, ranges), 0);
        EXPECT_EQ(data, row.payload);
    }
    EXPECT_EQ(ivs.size(), scheme == Scheme::Cenc ? 3U : 1U);
    const auto number = [](const host::Sample& sample) {
        return std::accumulate(sample.iv(), sample.iv() + 8, std::uint64_t{0},
                               [](std::uint64_t sum, auto byte) { return sum << 8U | byte; });
    };
    if (scheme == Scheme::Cenc) {
        EXPECT_EQ(number(*samples[1]), number(*samples[0]) + 1);
        EXPECT_EQ(number(*samples[2]), number(*samples[0]) + 2);
    }
}

TEST(ClearKeyProtect, WhatIsProtectedCanBeParsedAndDecrypted) {
    for (const auto interface : interfaces) {
        ClearKey keys(interface);
        keys.addKey(pair);
        for (const auto& row : protectCases()) {
            SCOPED_TRACE(row.what);
            for (const auto scheme : {Scheme::Cenc, Scheme::Cbcs})
                checkProtection(row, scheme, keys);
        }
        EXPECT_EQ(keys.created(), keys.released());
    }
}

TEST(ClearKeyProtect, NoSampleSlipsThroughClear) {
    const auto payload = someBytes(50);
    const auto lost = clearSample(payload, nullptr);
    auto protectedOnce = lost;
    protectedOnce.protection.scheme = Scheme::Cbcs;
    auto stream = host::protect(std::make_unique<ReadyStream>(host::StreamInfo::Kind::Audio,
                                                              std::vector{protectedOnce, lost}),
                                Scheme::Cenc, pair);
    const auto batch = stream->read(5);
    ASSERT_EQ(batch.samples.size(), 1U) << "one that is encrypted already passes";
    EXPECT_EQ(batch.samples[0]->payload(), payload.data());
    EXPECT_NE(batch.error, "");
    EXPECT_FALSE(batch.ended);
}

TEST(ClearKeyRefusal, KeyReferencesAndObjectsThatItDoesNotKnow) {
    ClearKey keys(ClearKey::Interface::FullSample);
    keys.addKey(pair);
    ClearKey others(ClearKey::Interface::PerRange);
    others.addKey(pair);
    const auto cbcs = reference(Scheme::Cbcs);
    UVADRMDecrypter* foreign = nullptr;
    ASSERT_EQ(others.createDecrypter(foreign, cbcs.data(), cbcs.size(), 0), 1);
    auto* decrypter = foreign;
    for (const std::size_t size : {0, 15, 17, 19}) {
        Bytes id = cbcs;
        id.resize(size);
        EXPECT_NE(keys.createDecrypter(decrypter, id.data(), size, 0), 1) << size;
    }
    EXPECT_NE(keys.createDecrypter(decrypter, nullptr, 16, 0), 1);
    EXPECT_NE(keys.createDecrypter(decrypter, reference(Scheme::Cbcs, 0, 9).data(), 18, 0), 1);
    EXPECT_NE(keys.createDecrypter(decrypter, Bytes(16).data(), 16, 0), 1) << "unknown key";
    EXPECT_EQ(decrypter, foreign);

    Bytes data(16);
    std::uint32_t slot = 77;
    for (UVADRMDecrypter* const unknown : {static_cast<UVADRMDecrypter*>(nullptr), decrypter}) {
        EXPECT_NE(find<UVADRMFullSampleDecrypter>(keys)->decrypt(
                      unknown, {data.data(), 16, data.data(), 16, {{0, 16}}}),
                  0);
        EXPECT_NE(find<UVADRMKeySlotGetter>(keys)->getKeySlot(unknown, slot), 1);
        keys.releaseDecrypter(unknown);
    }
    EXPECT_EQ(slot, 77U);
    EXPECT_EQ(keys.created() + keys.released(), 0U);
    EXPECT_EQ(keys.getInterface(nullptr), nullptr);
    EXPECT_EQ(keys.getInterface("full-sample-decrypter"), nullptr);
}

TEST(ClearKeyRefusal, VectorsAndMemoryThatDoNotFit) {
    ClearKey keys(ClearKey::Interface::PerRange);
    keys.addKey(pair);
    EXPECT_EQ(find<UVADRMFullSampleDecrypter>(keys), nullptr);
    for (const auto scheme : {Scheme::Cenc, Scheme::Cbcs}) {
        UVADRMDecrypter* decrypter = nullptr;
        const auto id = reference(scheme);
        ASSERT_EQ(keys.createDecrypter(decrypter, id.data(), id.size(), 0), 1);
        const Bytes iv(17);
        Bytes in(32), out(32);
        const auto result = [&](std::size_t ivSize, bool first = true, std::size_t outSize = 32) {
            return decrypter->decrypt(
                {ivSize == 0 ? nullptr : iv.data(), ivSize, in.data(), in.size(), first},
                {out.data(), outSize});
        };
        EXPECT_NE(result(0, false), 0) << "nothing to carry on";
        EXPECT_EQ(decryptRanges(*decrypter, Bytes(16), out, {{0, 32}}), 0);
        EXPECT_NE(result(0, false), 0) << "the sample has ended";
        for (const std::size_t size : {0, 7, 9, 15, 17})
            EXPECT_NE(result(size), 0) << size;
        EXPECT_EQ(result(8) == 0, scheme == Scheme::Cenc);
        EXPECT_EQ(result(16), 0);
        EXPECT_NE(out, in) << "decrypted into other memory";
        EXPECT_EQ(in, Bytes(32));
        EXPECT_NE(result(0), 0) << "the vector of the sample before";
        const Bytes before = out;
        EXPECT_NE(result(16, true, 31), 0);
        EXPECT_NE(decrypter->decrypt({iv.data(), 16, in.data(), 32, true}, {nullptr, 32}), 0);
        EXPECT_NE(decrypter->decrypt({iv.data(), 16, nullptr, 32, true}, {out.data(), 32}), 0);
        EXPECT_NE(result(0, false), 0) << "the sample has failed";
        EXPECT_EQ(out, before);
    }
    EXPECT_EQ(keys.created(), 2U);
    EXPECT_EQ(keys.released(), 0U) << "what is not given back ends with the keys";
}

TEST(ClearKeyRefusal, MapsThatLeaveTheSample) {
    ClearKey keys(ClearKey::Interface::FullSample);
    keys.addKey(pair);
    const auto untouched = someBytes(64);
    const Bytes iv(16);
    for (const Ranges& ranges :
         {Ranges{{64, 1}}, Ranges{{0, 65}}, Ranges{{65, 0}}, Ranges{{0, 16}, {16, 0xffffffff}},
          Ranges{{0, 16}, {0xffffffff, 0xffffffff}}}) {
        for (const auto scheme : {Scheme::Cenc, Scheme::Cbcs}) {
            auto data = untouched;
            EXPECT_NE(decrypt(keys, reference(scheme), iv, data, ranges), 0);
            EXPECT_EQ(data, untouched);
        }
    }
    auto data = untouched;
    EXPECT_NE(decrypt(keys, reference(Scheme::Cenc), Bytes(9), data, {{0, 64}}), 0);
    EXPECT_EQ(decrypt(keys, reference(Scheme::Cenc), {}, data, {{64, 0}}), 0) << "all clear";
    EXPECT_EQ(data, untouched);
}

TEST(ClearKeyMany, KeysHaveDecryptersAndSlotsOfTheirOwn) {
    ClearKey keys(ClearKey::Interface::PerRange);
    std::vector<UVADRMDecrypter*> decrypters(16);
    std::set<Bytes> results;
    for (std::uint8_t i = 0; i < 16; ++i) {
        const host::KeyPair own = {{i}, {i}};
        keys.addKey(own);
        ASSERT_EQ(keys.createDecrypter(decrypters[i], own.id.data(), own.id.size(), 0), 1);
    }
    for (std::uint32_t i = 0, slot = 0; i < 16; ++i) {
        Bytes data(16);
        EXPECT_EQ(decryptRanges(*decrypters[i], Bytes(8), data, {{0, 16}}), 0);
        results.insert(data);
        EXPECT_EQ(find<UVADRMKeySlotGetter>(keys)->getKeySlot(decrypters[i], slot), 1);
        EXPECT_EQ(slot, i + 1);
    }
    EXPECT_EQ(results.size(), 16U);
    for (auto* const decrypter : decrypters)
        keys.releaseDecrypter(decrypter);
    EXPECT_EQ(keys.released(), 16U);
}

TEST(ClearKeyMany, SessionsSeeTheirOwnKeysAndThoseOfAll) {
    ClearKey keys(ClearKey::Interface::FullSample);
    const auto id = reference(Scheme::Cenc);
    const Bytes iv(8, 1), clear = someBytes(32);
    /// What this session's decrypter makes of it; empty: there is none.
    const auto decrypted = [&](std::uint64_t session) {
        UVADRMDecrypter* decrypter = nullptr;
        if (keys.createDecrypter(decrypter, id.data(), id.size(), session) != 1)
            return Bytes();
        auto data = clear;
        find<UVADRMFullSampleDecrypter>(keys)->decrypt(
            decrypter, {data.data(), data.size(), iv.data(), iv.size(), {{0, 32}}});
        keys.releaseDecrypter(decrypter);
        return data;
    };
    constexpr std::uint64_t one = 1, other = ~0ULL;
    keys.addKey(pair, one);
    EXPECT_TRUE(keys.hasKey(pair.id, one));
    for (const auto session : {other, std::uint64_t{0}}) {
        EXPECT_FALSE(keys.hasKey(pair.id, session));
        EXPECT_EQ(decrypted(session), Bytes());
    }
    const auto ofOne = decrypted(one);
    EXPECT_EQ(ofOne.size(), clear.size());
    keys.addKey({pair.id, {7}});
    EXPECT_EQ(decrypted(one), ofOne) << "its own goes first";
    const auto ofAll = decrypted(other);
    EXPECT_EQ(ofAll.size(), clear.size());
    EXPECT_NE(ofAll, ofOne);
    keys.removeKey(pair.id, other);
    keys.removeKey(pair.id, one);
    EXPECT_EQ(decrypted(one), ofAll);
    keys.addKey(pair, one);
    keys.addKey({{0xff}, {}}, one);
    keys.addKey(pair, one + 1);
    keys.removeKeys(one);
    EXPECT_FALSE(keys.hasKey({0xff}, one));
    EXPECT_EQ(decrypted(one), ofAll);
    EXPECT_EQ(decrypted(one + 1), ofOne);
    keys.removeKey(pair.id);
    EXPECT_EQ(decrypted(one), Bytes());
}

TEST(ClearKeyMany, ThreadsDecryptAtOnce) {
    ClearKey keys(ClearKey::Interface::FullSample);
    keys.addKey(pair);
    const auto clear = someBytes(64);
    const auto work = [&](std::uint8_t thread) {
        for (std::uint8_t round = 0; round < 100; ++round) {
            keys.addKey({{thread, round}, {}});
            auto data = encryptCenc(clear, Bytes(16), {{0, 64}});
            EXPECT_EQ(decrypt(keys, reference(Scheme::Cenc), Bytes(16), data, {{0, 64}}), 0);
            EXPECT_EQ(data, clear);
        }
    };
    {
        const auto other = std::async(std::launch::async, work, 1);
        work(2);
    }
    EXPECT_EQ(keys.created() + keys.released(), 400U);
}

TEST(ClearKeyText, KeysAreReadOrLeftAlone) {
    const std::string id = "00112233445566778899aabbccddeeff",
                      key = "0123456789ABCDEFfedcba9876543210";
    host::KeyPair read = {};
    for (const auto& text : {id, std::string("00112233-4455-6677-8899-aabbccddeeff")}) {
        read = {};
        EXPECT_TRUE(host::parseKey(text + ":" + key, read));
        EXPECT_EQ(host::hexText(read.id) + host::hexText(read.key),
                  id + "0123456789abcdeffedcba9876543210");
    }
    const auto before = read.key;
    for (const auto& text : {std::string(), id, id + ":", ":" + key, id + key, id + ":" + key + "0",
                             id + ":" + key.substr(1) + "g", id + "::" + key,
                             "0011-2233-4455-66778899-aabbccddeeff:" + key})
        EXPECT_FALSE(host::parseKey(text, read)) << text;
    EXPECT_EQ(read.key, before);
}

} // namespace
