#include "isobmff_sample_entry.h"
#include "movie_boxes.h"
#include "segment_fixture.h"

namespace {

/// What 'tenc' and 'seig' say: a key id of one repeated byte; a constant vector of 8 bytes when
/// `ivSize` is 0.
Bytes described(std::uint8_t key, std::uint8_t ivSize = 8, bool isEncrypted = true) {
    const Bytes constant = isEncrypted && ivSize == 0 ? Bytes(1, 8) + Bytes(8, 7) : Bytes();
    return Bytes{0, 0x19, isEncrypted, ivSize} + Bytes(16, key) + constant;
}

Bytes sinf(const std::string& format, const std::string& scheme, const Bytes& tenc) {
    return box("sinf", box("frma", letters(format)) +
                           box("schm", word(0) + letters(scheme) + word(0x10000)) +
                           box("schi", box("tenc", word(0x1000000) + tenc)));
}

struct Trun {
    std::uint32_t flags = 1;
    std::uint32_t count = 3;
    Bytes fields = {}; ///< behind the place of the samples
    std::uint8_t version = 0;
    std::uint32_t skip = 0; ///< bytes of media data in front of it
};

struct Traf {
    Bytes tfhd = word(0x20000) + word(video);
    Bytes more = box("tfdt", word(0) + word(0));
    std::vector<Trun> runs = {{}};
    std::uint32_t vectors = ~0U; ///< where in the media data 'saio' says they are
};

constexpr std::size_t mediaSize = 64;

/// Bytes that count up.
Bytes media(std::size_t size = mediaSize) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::uint8_t>(i);
    return bytes;
}

/// `data`: where the media data begins, from the 'moof' on.
Bytes bytesOf(const Traf& traf, std::uint32_t data) {
    Bytes runs;
    for (const auto& run : traf.runs)
        runs = runs + box("trun", word(run.version << 24U | run.flags) + word(run.count) +
                                      ((run.flags & 1) != 0 ? word(data + run.skip) : Bytes()) +
                                      run.fields);
    const auto saio =
        traf.vectors == ~0U ? Bytes() : box("saio", word(0) + word(1) + word(data + traf.vectors));
    return box("traf", box("tfhd", traf.tfhd) + traf.more + runs + saio);
}

Bytes moof(const std::vector<Traf>& trafs, const Bytes& more = {}) {
    Bytes last;
    for (std::uint32_t data = 0; last.empty() || data != last.size() + 8;) {
        data = static_cast<std::uint32_t>(last.empty() ? 0 : last.size() + 8);
        Bytes bytes = box("mfhd", word(0) + word(1));
        for (const auto& traf : trafs)
            bytes = bytes + bytesOf(traf, data);
        last = box("moof", bytes + more);
    }
    return last;
}

Bytes segment(const std::vector<Traf>& trafs, const Bytes& more = {}) {
    return moof(trafs, more) + box("mdat", media());
}

/// Of each frame: its times in ticks of 1/100 s, its length, where in the media it is.
std::string timesOf(const Told& told) {
    std::ostringstream text;
    for (const auto& frame : told.frames) {
        const auto& sample = frame.sample;
        text << std::llround(sample.pts * 100);
        if (sample.dts != sample.pts)
            text << "/" << std::llround(sample.dts * 100);
        text << "+" << std::llround(sample.duration * 100) << "@" << int{sample.payload.get()[0]}
             << ":" << sample.size << (sample.keyFrame ? " " : "- ");
    }
    return text.str();
}

const Bytes tfhd = word(0x20000) + word(video);
const Bytes tfdt = box("tfdt", word(0) + word(0));

TEST(Fragment, TellsTimesAndPlaces) {
    const auto minus = [](std::uint32_t value) { return word(~value + 1); };
    const auto rate = word(0x10000);
    const auto edited = [](const Bytes& edits) {
        return movie({{video, visualEntry("avc1", avcC), edits}});
    };
    const auto plain = std::vector<Traf>{{}};
    const auto with = [](const Trun& run) { return std::vector<Traf>{{tfhd, tfdt, {run}}}; };
    const auto two =
        movie({{}, {audio, audioEntry("ac-3", box("dac3", {0x10, 0x11, 0x40})), {}, {}, "soun"}});
    const auto ofAudio = word(0x20000) + word(audio);
    const struct {
        const char* what;
        Bytes init;
        std::vector<Traf> trafs;
        std::string told;
    } rows[] = {
        {"defaults of the movie", movie(), plain, "0+10@0:4 10+10@4:4 20+10@8:4 "},
        {"... of the fragment",
         movie(),
         {{word(0x20038) + word(video) + word(7) + word(5) + word(0x10000), tfdt, {{}}}},
         "0+7@0:5- 7+7@5:5- 14+7@10:5- "},
        {"the first sample's flags",
         movie(),
         {{word(0x20020) + word(video) + word(0x1010000), tfdt, {{5, 3, word(0x2000000)}}}},
         "0+10@0:4 10+10@4:4- 20+10@8:4- "},
        {"one that depends on others",
         movie(),
         {{word(0x20020) + word(video) + word(0x1000000), tfdt, {{1, 1}}}},
         "0+10@0:4- "},
        {"all fields", movie(),
         with(
             {0xf01, 2,
              word(3) + word(6) + word(0x10000) + word(1) + word(4) + word(1) + word(0) + word(2)}),
         "1/0+3@0:6- 5/3+4@6:1 "},
        {"offsets below 0", movie(), with({0x801, 2, word(5) + minus(5), 1}),
         "5/0+10@0:4 5/10+10@4:4 "},
        {"samples without bytes", movie(), with({0x201, 3, word(0) + word(8) + word(0)}),
         "10+10@0:8 "},
        {"a late start",
         movie(),
         {{tfhd, box("tfdt", word(0) + word(500)), {{1, 1}}}},
         "500+10@0:4 "},
        {"... of 64 bits",
         movie(),
         {{tfhd, box("tfdt", word(0x1000000) + word(1) + word(4)), {{1, 1}}}},
         "4294967300+10@0:4 "},
        {"two runs, one behind the other",
         movie(),
         {{tfhd, tfdt, {{1, 2}, {0, 1}}}},
         "0+10@0:4 10+10@4:4 20+10@8:4 "},
        {"... with a gap",
         movie(),
         {{tfhd, tfdt, {{1, 1}, {1, 1, {}, 0, 40}}}},
         "0+10@0:4 10+10@40:4 "},
        {"... the later in front",
         movie(),
         {{tfhd, tfdt, {{1, 1, {}, 0, 40}, {1, 2, {}, 0, 8}}}},
         "0+10@40:4 10+10@8:4 20+10@12:4 "},
        {"two tracks",
         two,
         {{tfhd, tfdt, {{1, 2, {}, 0, 8}}}, {ofAudio, tfdt, {{1, 2}}}},
         "0+10@0:4 10+10@4:4 0+10@8:4 10+10@12:4 "},
        {"a track that is skipped",
         movie({{}, {9, visualEntry("mett", {}), {}, {}, "meta"}}),
         {{word(0x20000) + word(9), tfdt, {{}}}, {tfhd, tfdt, {{1, 1, {}, 0, 12}}}},
         "0+10@12:4 "},
        {"one traf that counts from the moof by itself",
         movie(),
         {{word(0) + word(video), tfdt, {{1, 1}}}},
         "0+10@0:4 "},
        {"an edit cuts off", edited(word(0) + word(1) + word(0) + word(5) + rate), plain,
         "-5+10@0:4 5+10@4:4 15+10@8:4 "},
        {"... a later one counts no more",
         edited(word(0) + word(2) + word(100) + word(5) + rate + word(0) + word(50) + rate),
         with({1, 1}), "-5+10@0:4 "},
        {"an empty edit delays",
         edited(word(0) + word(2) + word(300) + minus(1) + rate + word(0) + word(2) + rate),
         with({1, 1}), "28+10@0:4 "},
        {"long edits",
         edited(word(0x1000000) + word(2) + word(0) + word(300) + minus(1) + minus(1) + rate +
                word(0) + word(0) + word(0) + word(2) + rate),
         with({1, 1}), "28+10@0:4 "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const auto stream = row.init + box("styp", letters("msdh")) + segment(row.trafs);
        for (const auto size : {~std::size_t{0}, std::size_t{1}}) {
            const auto told = parse(stream, "video/mp4", {size});
            EXPECT_EQ(told->error, "");
            EXPECT_EQ(timesOf(*told), row.told);
            EXPECT_EQ(told->order, "init frames end ");
        }
    }
}

TEST(Fragment, MovesDecodingTimesWithTheEdit) {
    const auto init = movie({{video, visualEntry("avc1", avcC),
                              word(0) + word(1) + word(0) + word(20) + word(0x10000)}});
    const auto told = parse(init + segment({{tfhd, tfdt, {{0x801, 2, word(20) + word(30)}}}}));
    EXPECT_EQ(timesOf(*told), "0/-20+10@0:4 20/-10+10@4:4 ");
}

TEST(Fragment, SharesThePayload) {
    const auto stream = movie() + segment({{}});
    auto told = Told();
    const auto parser = SegmentParser::make("video/mp4", told);
    const auto bytes = std::make_shared<Bytes>(stream);
    EXPECT_EQ(parser->append({bytes, bytes->data()}, bytes->size()), "");
    ASSERT_EQ(told.frames.size(), 3U);
    EXPECT_EQ(told.frames[0].sample.payload.get(), bytes->data() + stream.size() - mediaSize);
}

/// How the frames are encrypted: key, vector, pattern, subsamples.
std::string protectionOf(const Told& told) {
    std::ostringstream text;
    for (const auto& frame : told.frames) {
        const auto& protection = frame.sample.protection;
        if (protection.scheme == Protection::Scheme::None) {
            text << "clear; ";
            continue;
        }
        const auto& key = protection.keyId;
        EXPECT_EQ(std::count(key.begin(), key.end(), key[0]), 16);
        text << (protection.scheme == Protection::Scheme::Cenc ? "cenc " : "cbcs ")
             << int{protection.keyId[0]} << " " << int{protection.iv[0]} << "."
             << int{protection.iv[7]} << "." << int{protection.iv[8]} << " "
             << protection.cryptByteBlock << ":" << protection.skipByteBlock;
        for (const auto& part : protection.subsamples)
            text << " " << part.clearBytes << "+" << part.encryptedBytes;
        text << "; ";
    }
    return text.str();
}

Bytes group(const Bytes& runs, const Bytes& descriptions = {}) {
    return (descriptions.empty() ? Bytes()
                                 : box("sgpd", word(0x1000000) + letters("seig") + word(20) +
                                                   word(descriptions.size() / 20) + descriptions)) +
           box("sbgp", word(0) + letters("seig") + word(runs.size() / 8) + runs);
}

TEST(Protection, IsThatOfEverySample) {
    const auto entry = [](const std::string& scheme, const Bytes& tenc) {
        return visualEntry("encv", avcC + sinf("avc1", scheme, tenc));
    };
    const auto with = [](const Bytes& sampleEntry, const Bytes& tables = {}) {
        return movie({{video, sampleEntry, {}, tables}});
    };
    const auto cenc = entry("cenc", described(1)), cbcs = entry("cbcs", described(1, 0));
    const auto sound = movie(
        {{audio, audioEntry("enca", esds + sinf("mp4a", "cenc", described(1))), {}, {}, "soun"}});
    const auto iv = [](std::uint8_t value) { return Bytes(8, value); };
    const auto parts = half(2) + half(1) + word(2) + half(0) + word(1);
    const auto senc = box("senc", word(0) + word(3) + iv(1) + iv(2) + iv(3));
    const auto sencParts =
        box("senc", word(2) + word(3) + iv(1) + parts + iv(2) + parts + iv(3) + parts);
    const auto saiz = [](std::uint8_t size, const Bytes& sizes = {}) {
        return box("saiz", word(0) + Bytes{size} + word(3) + sizes);
    };
    const auto clear = described(0, 0, false);
    const auto traf = [](const Bytes& more, std::uint32_t vectors = ~0U, std::uint32_t skip = 0) {
        return Traf{tfhd, tfdt + more, {{1, 3, {}, 0, skip}}, vectors};
    };
    const auto told1 = [](const std::string& rest) { return "cenc 1 " + rest; };
    const auto plain = told1("1.1.0 1:9; ") + told1("2.2.0 1:9; ") + told1("3.3.0 1:9; ");
    const struct {
        const char* what;
        Bytes init;
        Traf traf;
        std::string told;
    } rows[] = {
        {"vectors of their own", with(cenc), traf(senc), plain},
        {"... and parts", with(cenc), traf(sencParts),
         told1("1.1.0 1:9 1+2 0+1; ") + told1("2.2.0 1:9 1+2 0+1; ") +
             told1("3.3.0 1:9 1+2 0+1; ")},
        {"... of 16 bytes", with(entry("cenc", described(1, 16))),
         traf(box("senc", word(0) + word(3) + Bytes(16, 1) + Bytes(16, 2) + Bytes(16, 3))),
         told1("1.1.1 1:9; ") + told1("2.2.2 1:9; ") + told1("3.3.3 1:9; ")},
        {"... in front in the media data", with(cenc), traf(saiz(8), 0, 24),
         told1("0.7.0 1:9; ") + told1("8.15.0 1:9; ") + told1("16.23.0 1:9; ")},
        {"... beside the sizes of something else, and of itself again", with(cenc),
         traf(box("saiz", word(1) + letters("ABCD") + word(0) + Bytes{4} + word(3)) + saiz(8) +
                  saiz(4),
              0, 24),
         told1("0.7.0 1:9; ") + told1("8.15.0 1:9; ") + told1("16.23.0 1:9; ")},
        {"... behind the samples", with(cenc), traf(saiz(8), 30),
         told1("30.37.0 1:9; ") + told1("38.45.0 1:9; ") + told1("46.53.0 1:9; ")},
        {"the constant one, of 8 bytes", with(cbcs), traf({}),
         "cbcs 1 7.7.0 1:9; cbcs 1 7.7.0 1:9; cbcs 1 7.7.0 1:9; "},
        {"... with parts", with(cbcs), traf(box("senc", word(2) + word(3) + parts + parts + parts)),
         "cbcs 1 7.7.0 1:9 1+2 0+1; cbcs 1 7.7.0 1:9 1+2 0+1; cbcs 1 7.7.0 1:9 1+2 0+1; "},
        {"keys that change within a fragment", with(cenc),
         traf(senc + group(word(1) + word(0x10001) + word(1) + word(0) + word(1) + word(0x10002),
                           described(5) + described(6))),
         "cenc 5 1.1.0 1:9; cenc 1 2.2.0 1:9; cenc 6 3.3.0 1:9; "},
        {"... described for the track",
         with(cenc,
              box("sgpd", word(0x1000000) + letters("seig") + word(20) + word(1) + described(4))),
         traf(senc + group(word(2) + word(1))),
         "cenc 4 1.1.0 1:9; cenc 4 2.2.0 1:9; cenc 1 3.3.0 1:9; "},
        {"a clear sample among them", with(cenc),
         traf(box("senc", word(0) + word(3) + iv(1) + iv(3)) +
              group(word(1) + word(0) + word(1) + word(0x10001) + word(1) + word(0), clear)),
         "cenc 1 1.1.0 1:9; clear; cenc 1 3.3.0 1:9; "},
        {"... with sizes", with(cenc),
         Traf{tfhd,
              tfdt + saiz(0, {8, 0, 8}) +
                  group(word(1) + word(0) + word(1) + word(0x10001) + word(1) + word(0), clear),
              {{1, 3, {}, 0, 16}},
              0},
         "cenc 1 0.7.0 1:9; clear; cenc 1 8.15.0 1:9; "},
        {"a clear fragment", with(cenc), traf(group(word(3) + word(0x10001), clear)),
         "clear; clear; clear; "},
        {"the default of all that no run names",
         with(cenc, box("sgpd", word(0x2000000) + letters("seig") + word(20) + word(1) + word(1) +
                                    described(4))),
         traf(senc), "cenc 4 1.1.0 1:9; cenc 4 2.2.0 1:9; cenc 4 3.3.0 1:9; "},
        {"sound, whose header stays clear",
         sound,
         {word(0x20000) + word(audio), tfdt + senc, {{}}},
         told1("1.1.0 1:9 7+4; ") + told1("2.2.0 1:9 7+4; ") + told1("3.3.0 1:9 7+4; ")},
        {"... with parts",
         sound,
         {word(0x20000) + word(audio), tfdt + sencParts, {{}}},
         told1("1.1.0 1:9 8+2 0+1; ") + told1("2.2.0 1:9 8+2 0+1; ") +
             told1("3.3.0 1:9 8+2 0+1; ")},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const auto stream = row.init + segment({row.traf});
        for (const auto size : {~std::size_t{0}, std::size_t{1}}) {
            const auto told = parse(stream, "video/mp4", {size});
            EXPECT_EQ(told->error, "");
            EXPECT_EQ(protectionOf(*told), row.told);
        }
    }
}

TEST(Protection, OfVectorsInTheFragmentItself) {
    const auto init =
        movie({{video, visualEntry("encv", avcC + sinf("avc1", "cenc", described(1)))}});
    // 'saio' counts from the 'moof'; the vectors are the last bytes in it.
    const auto vectors = Bytes(8, 1) + Bytes(8, 2) + Bytes(8, 3);
    const auto saiz = box("saiz", word(1) + letters("cenc") + word(0) + Bytes{8} + word(3));
    Traf traf{tfhd, tfdt + saiz, {{}}, 0};
    traf.vectors = ~0U - 8 - 24 + 1; // in front of the header of the 'mdat'
    const auto told = parse(init + segment({traf}, box("free", vectors)));
    EXPECT_EQ(told->error, "");
    EXPECT_EQ(protectionOf(*told), "cenc 1 1.1.0 1:9; cenc 1 2.2.0 1:9; cenc 1 3.3.0 1:9; ");
}

TEST(SampleEntry, TellsCodecAndItsData) {
    const auto hvcC = [](std::uint8_t profile, std::uint64_t compatible, const Bytes& constraints,
                         std::uint8_t level) {
        return box("hvcC", Bytes{1, profile} + word(compatible) + constraints + Bytes{level} +
                               Bytes(9) + Bytes{0});
    };
    const auto mpeg4 = [](std::uint8_t object, const Bytes& specific) {
        return box("esds", word(0) + Bytes{3, 30, 0, 0, 0, 4, 20, object} + Bytes(12) +
                               Bytes{5, static_cast<std::uint8_t>(specific.size())} + specific);
    };
    const auto vpcC = box("vpcC", word(0x1000000) + Bytes{2, 31, 0xa3, 9, 16, 9, 0, 0});
    const auto av1C = [](std::uint8_t profile, std::uint8_t packed) {
        return box("av1C", {0x81, profile, packed, 0});
    };
    const auto main = hvcC(1, 0x60000000, Bytes{0x90} + Bytes(5), 93);
    const auto high = hvcC(0x62, 0x20000000, Bytes{0xb0, 0, 0x23} + Bytes(3), 150);
    const auto baseline = box("avcC", {1, 0x42, 0xc0, 0x0d, 0xff, 0xe0, 0});
    const auto bodyOf = [](const Bytes& whole) { return Bytes(whole.begin() + 8, whole.end()); };
    const auto dOps = half(2) + half(0x138) + word(48000) + Bytes(3);
    const auto opusHead = letters("OpusHead") + Bytes{1} + Bytes(dOps.begin() + 1, dOps.end());
    const Bytes lc = {0x11, 0x90}, sbr = {0x2b, 0x11, 0x88, 0}, extended = {0xf9, 0x46, 0x40};
    constexpr auto picture = StreamInfo::Kind::Video, sound = StreamInfo::Kind::Audio;
    const struct {
        StreamInfo::Kind kind;
        Bytes entry;
        const char *codecs, *codec;
        int channels; ///< 0: it cannot be played
        Bytes data = {};
    } rows[] = {
        {picture, visualEntry("avc1", avcC), "avc1.64001f", "h264", -1, bodyOf(avcC)},
        {picture, visualEntry("avc3", baseline), "avc3.42c00d", "h264", -1, bodyOf(baseline)},
        {picture, visualEntry("hvc1", main), "hvc1.1.6.L93.90", "hevc", -1, bodyOf(main)},
        {picture, visualEntry("hev1", high), "hev1.A2.4.H150.B0.0.23", "hevc", -1, bodyOf(high)},
        {picture, visualEntry("vp08", vpcC), "vp08.02.31.10.01.09.16.09.01", "vp8", -1},
        {picture, visualEntry("vp09", vpcC), "vp09.02.31.10.01.09.16.09.01", "vp9", -1},
        {picture, visualEntry("av01", av1C(8, 0)), "av01.0.08M.08", "av1", 0},
        {picture, visualEntry("av01", av1C(0x33, 0xc0)), "av01.1.19H.10", "av1", 0},
        {picture, visualEntry("av01", av1C(0x4d, 0x60)), "av01.2.13M.12", "av1", 0},
        {sound, audioEntry("mp4a", mpeg4(0x40, lc)), "mp4a.40.2", "aac", 2},
        {sound, audioEntry("mp4a", mpeg4(0x40, sbr)), "mp4a.40.5", "aac", 2},
        {sound, audioEntry("mp4a", mpeg4(0x40, extended)), "mp4a.40.42", "aac", 0},
        {sound, audioEntry("mp4a", mpeg4(0x67, lc)), "mp4a.67", "aac", 2},
        {sound, audioEntry("mp4a", mpeg4(0x6b, {})), "mp4a.6B", "mp3", 2},
        {sound, audioEntry("mp4a", mpeg4(0xa5, {})), "mp4a.A5", "ac3", 2},
        {sound, audioEntry("mp4a", mpeg4(0xa6, {})), "mp4a.A6", "eac3", 2},
        {sound, audioEntry("Opus", box("dOps", dOps)), "Opus", "opus", 2, opusHead},
        {sound, audioEntry("fLaC", box("dfLa", Bytes(42))), "fLaC", "flac", 0},
        {sound, audioEntry("ac-3", box("dac3", {0x10, 0x3d, 0xe0})), "ac-3", "ac3", 6},
        {sound, audioEntry("ec-3", box("dec3", {6, 0xc0, 0x20, 0x0f, 0})), "ec-3", "eac3", 6},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.codecs);
        host::BoxReader all(row.entry.data(), row.entry.size(), 0, 0, 0);
        const auto told = host::readSampleEntry(*all.next(), row.kind);
        EXPECT_EQ(told.codecs, row.codecs);
        EXPECT_EQ(told.codec, row.codec);
        EXPECT_EQ(told.fault.empty(), row.channels != 0) << told.fault;
        if (!told.fault.empty())
            continue;
        const auto& config = *told.config;
        EXPECT_EQ(Bytes(config.codecData, config.codecData + config.codecDataSize), row.data);
        if (row.kind == sound) {
            EXPECT_EQ(config.channels, row.channels);
            EXPECT_EQ(config.sampleRate, 48000);
        }
    }
}

TEST(Boxes, BeforeAndBetweenSegmentsAreTakenOrPassedOver) {
    const auto pssh = [](std::size_t size) { return box("pssh", Bytes(size)); };
    const auto emsg0 =
        box("emsg", word(0) + letters("urn") + Bytes(1) + letters("v") + Bytes(1) + word(1000) +
                        word(250) + word(500) + word(7) + letters("data"));
    const auto emsg1 = box("emsg", word(0x1000000) + word(1000) + word(0) + word(1500) +
                                       word(0xffffffff) + word(8) + letters("urn") + Bytes(2));
    const auto late = Traf{tfhd, box("tfdt", word(0) + word(100)), {{}}};
    const auto other = movie({{video, visualEntry("avc1", avcC), {}, {}, "vide", 50}});
    const struct {
        const char* what;
        Bytes stream;
        const char* order;
    } rows[] = {
        {"others",
         box("pdin", {}) + movie() + box("sidx", Bytes(30)) + box("free", {}) +
             longBox("uuid", Bytes(16)) + segment({{}}) + box("mfra", {}),
         "init frames end "},
        {"keys",
         movie({{}}, pssh(3) + pssh(4) + box("free", {}) + pssh(5)) + segment({{}}, pssh(6)),
         "init (cenc 23) (cenc 13) (cenc 14) frames end "},
        {"messages", movie() + segment({{}}) + emsg0 + emsg1 + segment({late}),
         "init frames end event urn//8 at 1.5 for inf  event urn/v/7 at 1.25 for 0.5 data frames "
         "end "},
        {"... in front of its media, of the next fragment",
         movie() + moof({{tfhd, tfdt, {{1, 3, {}, 0, static_cast<std::uint32_t>(emsg0.size())}}}}) +
             emsg0 + box("mdat", media()) + segment({late}),
         "init frames end event urn/v/7 at 1.25 for 0.5 data frames end "},
        {"another movie", movie() + segment({{}}) + other + segment({{}}),
         "init frames end init frames end "},
        {"two places of media data",
         movie() + moof({{tfhd, tfdt, {{1, 1}, {1, 1, {}, 0, 72}}}}) + box("mdat", media()) +
             box("mdat", media()),
         "init frames end "},
        {"no samples", movie() + moof({{tfhd, tfdt, {}}}) + box("mdat", {}) + segment({{}}),
         "init end frames end "},
        {"... and no data", movie() + moof({{tfhd, tfdt, {}}}) + segment({{}}),
         "init end frames end "},
        {"data that nobody names", movie() + segment({{}}) + box("mdat", media()),
         "init frames end "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        for (const auto size : {~std::size_t{0}, std::size_t{1}, std::size_t{13}}) {
            const auto told = parse(row.stream, "audio/MP4 ; codecs=x", {size});
            EXPECT_EQ(told->error, "");
            EXPECT_EQ(told->order, row.order);
            EXPECT_EQ(told->state, SegmentParser::State::Waiting);
        }
    }
    const auto told = parse(movie() + segment({{}}) + other + segment({{}}));
    EXPECT_EQ(timesOf(*told), "0+10@0:4 10+10@4:4 20+10@8:4 0+20@0:4 20+20@4:4 40+20@8:4 ");
}

/// At the byte where `at` begins, counted from the start of the stream.
std::string faultAt(const Bytes& in_front, const std::string& type, const std::string& what) {
    return "the box '" + type + "' at byte " + std::to_string(in_front.size()) + " " + what;
}

TEST(Fault, NamesTheBoxAndItsPlace) {
    const auto start = movie();
    const auto ftyp = Bytes(start.begin(), start.begin() + 16);
    const auto good = segment({{}});
    const auto huge = [](const std::string& type) {
        return word(1) + letters(type) + word(0x10000000) + word(0);
    };
    const auto inMovie = [&](const Bytes& more) { return movie({{}}, more); };
    const auto media = [&](const Traf& traf) { return start + segment({traf}); };
    const auto entry = [](const Bytes& bytes) { return movie({{video, bytes}}); };
    const auto encv = [&](const std::string& scheme, const Bytes& tenc) {
        return entry(visualEntry("encv", avcC + sinf("avc1", scheme, tenc)));
    };
    const auto protectedBy = encv("cenc", described(1));
    const struct {
        Bytes stream;
        std::string fault; ///< the end of it
    } rows[] = {
        {Bytes(8), "there is no box at byte 0"},
        {word(7) + letters("free"), "'free' at byte 0 has an impossible size"},
        {word(1) + letters("free") + word(0) + word(15), "'free' at byte 0 has an impossible size"},
        {word(0) + letters("free"), "'free' at byte 0 does not tell its size"},
        {huge("moov"), "'moov' at byte 0 is too large: 1152921504606846976 bytes"},
        {huge("mdat"), "'mdat' at byte 0 comes before an initialization segment ('moov')"},
        {good, "'moof' at byte 0 comes before an initialization segment ('moov')"},
        {ftyp + box("moov", {}), "'moov' at byte 16 has no 'mvhd'"},
        {ftyp + box("moov", word(99) + letters("trak")),
         "'trak' at byte 24 does not fit into 'moov'"},
        {ftyp + box("moov", box("mvhd", Bytes(11))),
         "'mvhd' at byte 24 is too short for what it should hold"},
        {ftyp + box("moov", box("mvhd", Bytes(100))), "'mvhd' at byte 24 has the timescale 0"},
        {ftyp + box("moov", box("mvhd", word(0) + Bytes(8) + word(1) + word(0))),
         "has no 'mvex': the file is not fragmented, which a media source needs; package it anew "
         "in fragments"},
        {movie({{}, {}}), "has the number of another track"},
        {ftyp + box("moov", box("mvhd", word(0) + Bytes(8) + word(1) + word(0)) + bytesOf(Track{}) +
                                box("mvex", box("trex", word(0) + word(2) + Bytes(16)))),
         "has no 'trex' for the track 1"},
        {movie({{video, visualEntry("avc1", avcC), {}, box("stts", word(0) + word(1) + Bytes(8))}}),
         "describes samples; a media source takes those of fragments alone"},
        {entry({}), "describes no samples"},
        {entry(visualEntry("avc1", {})), "has no 'avcC'"},
        {entry(visualEntry("av01", box("av1C", {0x81, 8, 12, 0}))),
         "the video codec av1 cannot be played"},
        {entry(visualEntry("mp4v", {})),
         faultAt(ftyp, "moov", "is refused: the video codec mp4v cannot be played")},
        {movie({{audio, audioEntry("fLaC", {}), {}, {}, "soun"}}),
         "the audio codec flac cannot be played"},
        {movie({{audio, audioEntry("mp4a", box("esds", word(0) + Bytes{4})), {}, {}, "soun"}}),
         "has not the descriptor 3"},
        {encv("cens", described(1)),
         "names the protection scheme 'cens', which is not supported; only 'cenc' and 'cbcs' are"},
        {encv("cbc1", described(1)),
         "names the protection scheme 'cbc1', which is not supported; only 'cenc' and 'cbcs' are"},
        {encv("cenc", described(1, 7)), "tells of vectors of 7 bytes, not 8 or 16"},
        {start + box("moof", {}), faultAt(start, "moof", "has no 'traf'")},
        {start + box("moof", box("traf", {})), "has no 'tfhd'"},
        {media({tfhd, {}, {{}}}), "has no decoding time ('tfdt')"},
        {media({word(1) + word(video) + word(0) + word(0), tfdt, {{}}}),
         "does not count the places of its samples from the 'moof'"},
        {start +
             segment({{word(0) + word(video), tfdt, {{}}}, {word(0) + word(video), tfdt, {{}}}}),
         "does not count the places of its samples from the 'moof'"},
        {media({tfhd, tfdt, {{0, 1}}}),
         "does not say where its samples are, counted from the 'moof' (data offset)"},
        {media({word(0x20002) + word(video) + word(2), tfdt, {{}}}),
         "names the sample description 2, which is not there"},
        {media({word(0x20000) + word(5), tfdt, {{}}}),
         "is of the track 5, which the 'moov' does not have"},
        {entry(visualEntry("avc1", avcC) + visualEntry("mp4v", {})) +
             segment({{word(0x20002) + word(video) + word(2), tfdt, {{}}}}),
         "is refused: the video codec mp4v cannot be played"},
        {media({tfhd, tfdt, {{0x101, 3, word(1) + word(2)}}}), "is too short for its 3 samples"},
        {media({tfhd, tfdt, {{1, 0xffffffff}}}), "has too many samples: 4294967295"},
        {media({tfhd, tfdt, {{1, 17}}}), "ends before its last sample"},
        {media({tfhd, tfdt, {{1, 3, {}, 0, 0xfffffff0}}}),
         "the samples at byte " + std::to_string(start.size() + moof({{}}).size() - 8) +
             " are not in an 'mdat' of their own"},
        {media({tfhd, tfdt, {{1, 2}, {1, 1, {}, 0, 4}}}), " are not in an 'mdat' of their own"},
        {start + moof({{}}) + good, ", of which a 'moof' tells, are not there"},
        {media({tfhd, tfdt, {{1, 1, {}, 0, 64}}}) + start,
         ", of which a 'moof' tells, are not there"},
        {media({tfhd, box("tfdt", word(0x1000000) + word(~0U) + word(0)), {{}}}),
         "has too late a time"},
        {protectedBy + good,
         faultAt(protectedBy + Bytes(24), "traf",
                 "has encrypted samples without initialization vectors ('senc', 'saiz')")},
        {protectedBy + segment({{tfhd, tfdt + box("saiz", word(0) + Bytes{8} + word(3)), {{}}}}),
         "does not say where the vectors of its samples are ('saio')"},
        {protectedBy + segment({{tfhd, tfdt + group(word(1) + word(0x10001)), {{}}}}),
         faultAt(protectedBy + Bytes(24), "traf",
                 "has encrypted samples of a group 'seig' that is not described ('sgpd')")},
        {protectedBy + segment({{tfhd,
                                 tfdt + box("senc", word(2) + word(1) + Bytes(8) + half(1) +
                                                        half(1) + word(9)),
                                 {{1, 1}}}}),
         "do not make up the sample"},
        {start + segment({{tfhd, tfdt + group(word(1) + word(0x10001), described(5)), {{}}}}),
         "has keys for samples whose description names no protection scheme"},
        {inMovie(box("pssh", {})) + box("emsg", word(0) + Bytes(30)), "has the timescale 0"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fault);
        for (const auto size : {~std::size_t{0}, std::size_t{1}}) {
            const auto told = parse(row.stream, "video/mp4", {size});
            ASSERT_GE(told->error.size(), row.fault.size()) << told->error;
            EXPECT_EQ(told->error.substr(told->error.size() - row.fault.size()), row.fault);
        }
    }
}

TEST(Fault, StaysUntilAResetWhichKeepsTheMovie) {
    Told told;
    EXPECT_EQ(SegmentParser::make("video/mp2t", told), nullptr);
    EXPECT_EQ(SegmentParser::make("", told), nullptr);
    const auto parser = SegmentParser::make("video/mp4", told);
    const auto give = [&](const Bytes& bytes) {
        return append(*parser, bytes.data(), bytes.size());
    };
    using State = SegmentParser::State;
    const auto start = movie();
    const auto good = segment({{}});
    const auto cut = [](const Bytes& bytes, std::size_t size) {
        return Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
    };
    EXPECT_EQ(give(cut(start, 20)), "");
    EXPECT_EQ(parser->state(), State::InitSegment);
    parser->reset();
    EXPECT_EQ(parser->state(), State::Waiting);
    EXPECT_EQ(give(start), "");
    EXPECT_EQ(parser->state(), State::Waiting);
    EXPECT_EQ(give(cut(good, good.size() - 55)), "");
    EXPECT_EQ(parser->state(), State::MediaSegment);
    EXPECT_EQ(told.frames.size(), 2U) << "a frame is given as soon as it is there";
    parser->reset();
    const auto fault = give(Bytes(8));
    EXPECT_NE(fault, "");
    EXPECT_EQ(give(good), fault);
    parser->reset();
    EXPECT_EQ(give(good), "");
    EXPECT_EQ(told.frames.size(), 5U);
    EXPECT_EQ(told.order, "init frames end ");
}

} // namespace
