#include "segment_fixture.h"
#include "webm_ids.h"

namespace {

/// Big-endian.
Bytes number(std::uint64_t value, int bytes) {
    Bytes text;
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
        text.push_back(static_cast<std::uint8_t>(value >> shift));
    return text;
}

Bytes letters(const std::string& text) {
    return {text.begin(), text.end()};
}

Bytes idOf(std::uint32_t id) {
    return number(id, id > 0xffffff ? 4 : id > 0xffff ? 3 : id > 0xff ? 2 : 1);
}

Bytes element(std::uint32_t id, const Bytes& body) {
    return idOf(id) + number(0x0100000000000000 | body.size(), 8) + body;
}

Bytes unsized(std::uint32_t id) {
    return idOf(id) + number(0x01ffffffffffffff, 8);
}

using namespace host::webm;

Bytes track(std::uint8_t id, std::uint8_t type, const std::string& codec, const Bytes& more = {}) {
    return element(TrackEntry, element(TrackNumber, {id}) + element(TrackType, {type}) +
                                   element(CodecId, letters(codec)) + more);
}

Bytes encryptedWith(const Bytes& keyId) {
    return element(ContentEncodings,
                   element(ContentEncoding,
                           element(ContentEncodingType, {1}) +
                               element(ContentEncryption, element(ContentEncAlgo, {5}) +
                                                              element(ContentEncKeyId, keyId))));
}

const Bytes opusHead = letters("OpusHead") + Bytes{1, 2, 0x38, 1, 0x80, 0xbb, 0, 0, 0, 0, 0};
const Bytes vp8 = track(1, 1, "V_VP8");
const Bytes opus = track(2, 2, "A_OPUS", element(CodecPrivate, opusHead));
const Bytes ebml = element(Ebml, element(DocType, letters("webm")));
const Bytes info = element(Info, element(TimecodeScale, number(1000000, 4)) +
                                     element(Duration, number(0x447a0000, 4))); // 1000

Bytes init(const Bytes& tracks = vp8) {
    return ebml + unsized(Segment) + info + element(Tracks, tracks);
}

/// Track, time, flags and what follows them.
Bytes block(std::uint8_t id, std::uint16_t time, std::uint8_t flags, const Bytes& frames) {
    return Bytes{static_cast<std::uint8_t>(0x80 | id)} + number(time, 2) + Bytes{flags} + frames;
}

constexpr std::uint8_t key = 0x80;

Bytes simple(std::uint16_t time, const Bytes& frames = Bytes(5, 9), std::uint8_t flags = key,
             std::uint8_t id = 1) {
    return element(SimpleBlock, block(id, time, flags, frames));
}

Bytes cluster(std::uint32_t time, const Bytes& blocks) {
    return element(Cluster, element(Timecode, number(time, 4)) + blocks);
}

/// Track, time and duration in milliseconds, length.
std::string timesOf(const Told& told) {
    std::ostringstream text;
    for (const auto& frame : told.frames) {
        EXPECT_EQ(frame.sample.pts, frame.sample.dts);
        text << frame.track << ": " << frame.sample.pts * 1000 << "+"
             << frame.sample.duration * 1000 << " " << frame.sample.size
             << (frame.sample.keyFrame ? "; " : "-; ");
    }
    return text.str();
}

TEST(Webm, TellsTimesAndDurations) {
    const auto group = [](const Bytes& more, std::uint16_t time = 0,
                          const Bytes& frames = Bytes(5)) {
        return element(BlockGroup, element(BlockOfGroup, block(1, time, 0, frames)) + more);
    };
    const auto lasts = [](std::uint8_t ticks) { return element(BlockDuration, {ticks}); };
    const auto steady = track(1, 1, "V_VP8", element(DefaultDuration, number(40000000, 4)));
    const Bytes packet20 = {0x78, 1, 2}, packet2x20 = {0xf9, 1, 2}, packet3x20 = {0xfb, 3, 2};
    const Bytes three(3, 1);
    const struct {
        const char* what;
        Bytes tracks, blocks;
        std::string told;
    } rows[] = {
        {"from the next block", vp8, simple(0) + simple(33, {1, 2}, 0) + simple(73),
         "1: 1000+33 5; 1: 1033+40 2-; 1: 1073+40 5; "},
        {"a block alone", vp8, simple(0), "1: 1000+25 5; "},
        {"from the track", steady, simple(0) + simple(33), "1: 1000+40 5; 1: 1033+40 5; "},
        {"from the block", steady, group(lasts(7)) + simple(33), "1: 1000+7 5; 1: 1033+40 5; "},
        {"a block that refers to others", vp8,
         group(lasts(7)) + group(lasts(8) + element(ReferenceBlock, {0xf9}), 7),
         "1: 1000+7 5; 1: 1007+8 5-; "},
        {"of Opus itself", opus,
         simple(0, packet20, key, 2) + simple(20, packet2x20, 0, 2) + simple(40, packet3x20, 0, 2),
         "2: 1000+20 3; 2: 1020+40 3; 2: 1040+60 3; "},
        {"a block before the cluster's time", vp8, simple(0xfff6), "1: 990+25 5; "},
        {"lacing, equal", vp8, simple(0, Bytes{2} + Bytes(9), key | 4) + simple(30),
         "1: 1000+10 3; 1: 1010+10 3; 1: 1020+10 3; 1: 1030+10 5; "},
        {"... of Xiph", steady, simple(0, Bytes{2, 2, 3} + Bytes(2 + 3 + 4), key | 2),
         "1: 1000+40 2; 1: 1040+40 3; 1: 1080+40 4; "},
        {"... of EBML", vp8, simple(30, Bytes{2, 0x82, 0xc0} + Bytes(2 + 3 + 4), key | 6),
         "1: 1030+25 2; 1: 1055+25 3; 1: 1080+25 4; "},
        {"a track that is skipped", vp8 + track(3, 17, "S_TEXT/UTF8"),
         simple(0) + simple(3, three, key, 3) + simple(5, three, key, 77) + simple(10),
         "1: 1000+10 5; 1: 1010+10 5; "},
        {"a track number of eight bytes", vp8,
         element(SimpleBlock, Bytes{1} + number(1, 7) + number(0, 2) + Bytes{key} + three),
         "1: 1000+25 3; "},
        {"two tracks", vp8 + opus, simple(0) + simple(1, packet20, key, 2) + simple(40),
         "2: 1001+20 3; 1: 1000+40 5; 1: 1040+40 5; "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        for (const auto size : {~std::size_t{0}, std::size_t{1}}) {
            const auto told =
                parse(init(row.tracks) + cluster(1000, row.blocks), "video/webm", {size});
            EXPECT_EQ(told->error, "");
            EXPECT_EQ(timesOf(*told), row.told);
            EXPECT_EQ(told->order, "init frames end ");
        }
    }
}

TEST(Webm, SegmentsComeInAnyOrder) {
    const auto first = cluster(0, simple(0) + simple(10)),
               second = cluster(20, simple(0) + simple(10));
    const auto open = unsized(Cluster) + element(Timecode, {50}) + simple(0) + simple(10);
    const auto sized =
        ebml + element(Segment, info + element(Tracks, vp8) + element(Cues, Bytes(30)));
    const auto small = ebml + element(Segment, info + element(Tracks, vp8));
    const struct {
        const char* what;
        Bytes stream;
        const char* order;
        const char* told;
    } rows[] = {
        {"clusters, other elements",
         init() + element(Void, Bytes(9)) + element(Tags, Bytes(9)) + first +
             element(Cues, Bytes(9)) + second,
         "init frames end frames end ", "0 10 20 30 "},
        {"... of unknown size",
         init() + first + unsized(Cues) + unsized(0xBB) + element(0xB3, {1}) + second,
         "init frames end frames end ", "0 10 20 30 "},
        {"clusters of unknown size", init() + open + open + element(Cues, Bytes(9)) + first,
         "init frames end frames end frames end ", "50 60 50 60 0 10 "},
        {"... and another movie", init() + open + init() + first,
         "init frames end init frames end ", "50 60 0 10 "},
        {"a segment that is at its end", small + first + second, "init frames end frames end ",
         "0 10 20 30 "},
        {"... with more in it", sized + first + sized + second, "init frames end init frames end ",
         "0 10 20 30 "},
        {"the later first", init() + second + first, "init frames end frames end ", "20 30 0 10 "},
        {"tracks again", init() + info + element(Tracks, opus) + first, "init frames end ",
         "0 10 "},
        {"no blocks", init() + cluster(0, {}) + first, "init end frames end ", "0 10 "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        for (const auto size : {~std::size_t{0}, std::size_t{1}, std::size_t{11}}) {
            const auto told = parse(row.stream, "audio/webm; codecs=vp8", {size});
            EXPECT_EQ(told->error, "");
            EXPECT_EQ(told->order, row.order);
            std::ostringstream times;
            for (const auto& frame : told->frames)
                times << frame.sample.pts * 1000 << " ";
            EXPECT_EQ(times.str(), row.told);
        }
    }
}

TEST(Webm, DescribesItsTracks) {
    const auto keyId = letters("0123456789012345");
    const auto encrypted = encryptedWith(keyId);
    const auto features = element(CodecPrivate, {1, 1, 2, 2, 1, 31, 3, 1, 10});
    const auto told = parse(
        init(track(1, 1, "V_VP9", features + encrypted + element(Language, letters("und"))) +
             track(2, 2, "A_OPUS",
                   element(CodecPrivate, opusHead) + encrypted + element(Name, letters("left")))) +
            cluster(0,
                    simple(0, Bytes{0} + Bytes(4, 1)) +
                        simple(1, Bytes{1} + Bytes(8, 3) + Bytes(4, 1), key, 2) +
                        simple(5, Bytes{3} + Bytes(8, 4) + Bytes{1} + number(2, 4) + Bytes(6, 1))),
        "video/webm");
    EXPECT_EQ(told->error, "");
    EXPECT_EQ(told->order, "init (webm 16) frames end ") << "one key, once";
    ASSERT_EQ(told->inits.size(), 1U);
    EXPECT_EQ(told->inits[0].duration, 1);
    const auto& tracks = told->inits[0].tracks;
    ASSERT_EQ(tracks.size(), 2U);
    EXPECT_EQ(tracks[0].codecs, "vp09.02.31.10");
    EXPECT_EQ(tracks[0].language, "");
    EXPECT_EQ(hexOf(tracks[0].keyId), hexOf(keyId));
    EXPECT_EQ(tracks[1].codecs, "opus");
    EXPECT_EQ(tracks[1].label, "left");
    EXPECT_EQ(tracks[1].config->channels, 2);
    std::string protection;
    for (const auto& frame : told->frames) {
        const auto text = contentOf(frame.sample);
        protection += std::to_string(frame.sample.size) + text.substr(text.find(" key") + 4) + "; ";
    }
    const auto id = hexOf(keyId);
    EXPECT_EQ(protection, "4; 6 cenc " + id + " 04040404040404040000000000000000 0:0 2+4; 4 cenc " +
                              id + " 03030303030303030000000000000000 0:0; ");
}

TEST(Webm, FaultsNameTheElementAndItsPlace) {
    const auto start = init();
    const auto at = [](const Bytes& front) {
        return " at byte " + std::to_string(front.size()) + " ";
    };
    const auto head = ebml + unsized(Segment);
    const auto vorbis = track(1, 2, "A_VORBIS", element(CodecPrivate, Bytes(3)));
    const struct {
        Bytes stream;
        std::string fault; ///< somewhere in it
    } rows[] = {
        {Bytes(20), "begin no element"},
        {cluster(0, simple(0)), "the element 0x1F43B675 at byte 0 (Cluster) comes before an "
                                "initialization segment is complete"},
        {element(Void, {}), "is not the EBML header that the stream must begin with"},
        {element(Ebml, element(DocType, letters("text"))), "another kind of document"},
        {head + element(Tracks, vp8), at(head) + "(Tracks) comes before the segment's Info"},
        {head + info + cluster(0, simple(0)),
         at(head + info) + "(Cluster) comes before an initialization segment"},
        {head + info + unsized(Tracks) + vp8, "does not tell its size"},
        {head + element(Info, element(TimecodeScale, {0})), "has the time scale 0"},
        {ebml + info, at(ebml) + "is in no Segment"},
        {head + info + ebml, at(head + info) + "(EBML) comes before the initialization segment in "
                                               "front of it is complete"},
        {ebml + element(Segment, info), at(ebml) + "(Segment) ends before its Tracks"},
        {ebml + idOf(Segment) + Bytes{0x84} + info, at(ebml) + "holds more than its size says"},
        {head + idOf(Info) + Bytes{0x84} + element(TimecodeScale, {1}),
         at(head) + "holds more than its size says"},
        {start + cluster(0, info), "cannot be in a Cluster"},
        {start + unsized(Cluster) + unsized(Void), "does not tell its size"},
        {start + cluster(0, element(SimpleBlock, Bytes{0x81, 0})),
         "is too short for what it holds"},
        {start + cluster(0, simple(0, Bytes{1, 255, 255}, key | 2)),
         "is too short for what it holds"},
        {start + cluster(0, simple(0, Bytes{1, 9, 1, 2}, key | 2)), "frames that go beyond it"},
        {start + cluster(0, simple(0, Bytes{2, 0x81, 0x80, 1, 2}, key | 6)), "of a negative size"},
        {start + cluster(0, simple(0, Bytes{1, 1, 2, 3}, key | 4)), "into frames of one size"},
        {init(track(1, 1, "V_AV1")), "the video codec V_AV1 of a WebM track cannot be played"},
        {init(track(1, 2, "A_VORBIS")), "damaged headers of the codec vorbis"},
        {init(vorbis), "damaged headers of the codec vorbis"},
        {init(vp8 + vp8), "has no number of its own"},
        {start + vp8, "is not in the Tracks of an initialization segment"},
        {start + simple(0), at(start) + "is in no Cluster"},
        {start + element(Timecode, {0}), at(start) + "is in no Cluster"},
        {start + element(Cluster, simple(0)),
         "(Cluster) does not tell its time before its first block"},
        {start + cluster(0, simple(10) + simple(5)),
         "(a block) comes behind one with a later time"},
        {init(vp8 + opus) + cluster(0, simple(10) + simple(5, {0x78}, key, 2)),
         "(a block) comes behind one with a later time"},
        {init(vp8 + opus) + cluster(0, simple(0)),
         at(init(vp8 + opus)) + "(Cluster) has no block of the track 2"},
        {init(vp8 +
              track(2, 2, "A_OPUS", element(CodecPrivate, opusHead) + encryptedWith(Bytes(5)))),
         "is encrypted with a key whose id has not 16 bytes, but 5"},
        {start + idOf(Cluster) + Bytes{0x84} + element(Timecode, Bytes(4)),
         at(start) + "holds more than its size says"},
        {start + idOf(Cluster) + Bytes{0x84} + Bytes{Timecode, 0x83, 0, 0, 0},
         at(start) + "holds more than its size says"},
        {start + idOf(Cluster) + Bytes{0x84} + Bytes{Timecode, 0x81, 0, SimpleBlock} + Bytes(9),
         at(start) + "holds more than its size says"},
        {head + idOf(Info) + number(0x0100100000000000, 8), "is too large: 17592186044416 bytes"},
        {start + unsized(Cluster) + element(Timecode, {0}) + idOf(SimpleBlock) +
             number(0x0110000000000000, 8),
         "is too large: 4503599627370496 bytes"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fault);
        for (const auto size : {~std::size_t{0}, std::size_t{1}}) {
            const auto told = parse(row.stream, "video/webm", {size});
            EXPECT_NE(told->error.find(row.fault), std::string::npos) << told->error;
        }
    }
}

TEST(Webm, AResetKeepsTheMovie) {
    Told told;
    const auto parser = SegmentParser::make("video/webm", told);
    using State = SegmentParser::State;
    const auto give = [&](const Bytes& bytes) {
        return append(*parser, bytes.data(), bytes.size());
    };
    const auto cut = [](const Bytes& bytes, std::size_t left) {
        return Bytes(bytes.begin(), bytes.end() - static_cast<std::ptrdiff_t>(left));
    };
    EXPECT_EQ(give(cut(init(), 3)), "");
    EXPECT_EQ(parser->state(), State::InitSegment);
    parser->reset();
    EXPECT_EQ(give(init()), "");
    EXPECT_EQ(parser->state(), State::Waiting);
    const auto one = cluster(0, simple(0) + simple(10) + simple(20));
    EXPECT_EQ(give(cut(one, 2)), "");
    EXPECT_EQ(parser->state(), State::MediaSegment);
    EXPECT_EQ(timesOf(told), "1: 0+10 5; ");
    parser->reset();
    EXPECT_EQ(parser->state(), State::Waiting);
    EXPECT_NE(give(Bytes(20)), "");
    parser->reset();
    EXPECT_EQ(give(cluster(7, simple(0))), "");
    EXPECT_EQ(told.order, "init frames end ");
    EXPECT_EQ(timesOf(told), "1: 0+10 5; 1: 7+10 5; ");
}

} // namespace
