// What an initialization segment tells: its length, and the codecs and forms of its tracks.

#include "movie_boxes.h"
#include "segment_fixture.h"

#include <limits>

namespace {

/// Of a stream that goes on for ever, media players know no length.
TEST(Movie, TellsHowLongItIs) {
    constexpr auto endless = std::numeric_limits<double>::infinity();
    const auto whole = [](std::uint32_t length) { return box("mehd", word(0) + word(length)); };
    const struct {
        std::uint32_t header;
        Bytes extends;
        double duration;
    } rows[] = {
        {1500, {}, 1.5},
        {1500, whole(2500), 2.5},
        {0, whole(2500), 2.5},
        {0, {}, endless},
        {~0U, {}, endless},
        {1500, whole(0), 1.5},
        {1500, box("mehd", word(0x1000000) + word(~0U) + word(~0U)), 1.5},
        {0, box("mehd", word(0x1000000) + word(1) + word(0)), 4294967.296},
    };
    for (const auto& row : rows) {
        const auto told = parse(movie({{}}, {}, row.header, row.extends));
        ASSERT_EQ(told->inits.size(), 1U) << told->error;
        const auto& segment = told->inits[0];
        EXPECT_EQ(segment.duration, row.duration);
        EXPECT_EQ(segment.tracks.at(0).info.duration, row.duration == endless ? 0 : row.duration);
        EXPECT_EQ(segment.tracks[0].language + segment.tracks[0].label, "engname");
    }
}

std::shared_ptr<const UVAStreamConfig> configOf(const Track& track) {
    const auto told = parse(movie({track}));
    EXPECT_EQ(told->error, "");
    return told->inits.at(0).tracks.at(0).config;
}

TEST(SampleEntry, TellsColours) {
    const auto types = half(9) + half(16) + half(10); // primaries, transfer, matrix
    const struct {
        Bytes colr;
        std::string told;
    } rows[] = {
        {letters("nclx") + types + Bytes{0x80}, "9 16 10 range 2"},
        {letters("nclx") + types + Bytes{0}, "9 16 10 range 1"},
        {letters("nclc") + types, "9 16 10 range 0"},
        {letters("prof") + Bytes(8), "2 2 2 range 0"},
    };
    for (const auto& row : rows) {
        const auto config = configOf({video, visualEntry("avc1", avcC + box("colr", row.colr))});
        std::ostringstream text;
        const auto& color = *config->color;
        text << color.primaries << " " << color.transfer << " " << color.matrix << " range "
             << color.range;
        EXPECT_EQ(text.str(), row.told);
        EXPECT_EQ(config->mastering, nullptr);
    }
    const auto mdcv = half(8500) + half(39850) + half(6550) + half(2300) + half(35400) +
                      half(14600) + half(15635) + half(16450) + word(10000000) + word(50);
    const auto config = configOf({video, visualEntry("avc1", avcC + box("mdcv", mdcv))});
    ASSERT_NE(config->mastering, nullptr);
    std::ostringstream text;
    const auto& told = *config->mastering;
    for (const double value :
         {told.primaryRX, told.primaryRY, told.primaryGX, told.primaryGY, told.primaryBX,
          told.primaryBY, told.whitePointX, told.whitePointY, told.luminanceMax, told.luminanceMin})
        text << value << " ";
    EXPECT_EQ(text.str(), "0.708 0.292 0.17 0.797 0.131 0.046 0.3127 0.329 1000 0.005 ");
}

/// The entry's own boxes tell more, and better, than its fields.
TEST(SampleEntry, TellsDepthsChannelsAndRates) {
    const auto aac = [](const Bytes& config) {
        const auto size = static_cast<std::uint8_t>(config.size());
        return box("esds", word(0) + Bytes{3, 0x80, 0x80, static_cast<std::uint8_t>(size + 20)} +
                               Bytes{0, 0, 0, 4, static_cast<std::uint8_t>(size + 15), 0x40} +
                               Bytes(12) + Bytes{5, size} + config);
    };
    const auto avc = [](const Bytes& profile, std::uint8_t sequences) {
        return box("avcC", Bytes{1} + profile + Bytes{0xff, sequences} + half(3) + Bytes(3) +
                               Bytes{1} + half(2) + Bytes(2) + Bytes{0xfd, 0xfa, 0xfa, 0});
    };
    const auto hevc = [](const Bytes& profile, std::uint8_t depth) {
        return box("hvcC", Bytes{1} + profile + Bytes(4) + Bytes{depth});
    };
    const struct {
        const char* type;
        Bytes boxes;
        const char* told;
    } rows[] = {
        {"avc1", avc({0x6e, 0x10, 0x28}, 0xe1), "10 bits"},
        {"avc3", avc({0x4d, 0x40, 0x1e}, 0xe1), "8 bits"},
        {"hvc1", hevc({0x22, 0x20, 0, 0, 0, 0x90, 0, 0, 0, 0, 0, 153}, 0xfa), "10 bits"},
        {"hev1", hevc({0x41, 0x60, 0, 0, 0, 0xb0, 0, 1, 0, 0, 0, 93}, 0xf8), "8 bits"},
        {"vp09", box("vpcC", word(0x1000000) + Bytes{2, 31, 0xa3, 9, 16, 10} + half(0)), "10 bits"},
        {"mp4a", aac({0x11, 0x88}), "1 at 48000"},
        {"mp4a", aac({0x11, 0xb0}), "6 at 48000"},
        {"mp4a", aac({0x11, 0xb8}), "8 at 48000"},
        {"mp4a", aac({0x2b, 0x92, 0x08, 0x00}), "2 at 48000"},
        {"ac-3", box("dac3", {0x50, 0x3c, 0}), "6 at 44100"},
        {"ec-3", box("dec3", half(0) + Bytes{0xa0, 4, 0}), "2 at 32000"},
        {"Opus", box("dOps", Bytes{0, 6} + half(312) + word(44100) + Bytes(3)), "6 at 48000"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.type);
        const bool isAudio = std::string_view(row.told).find(" at ") != std::string_view::npos;
        const auto told =
            parse(movie({isAudio ? Track{audio, audioEntry(row.type, row.boxes), {}, {}, "soun"}
                                 : Track{video, visualEntry(row.type, row.boxes)}}));
        ASSERT_EQ(told->error, "");
        const auto& config = *told->inits.at(0).tracks.at(0).config;
        std::ostringstream text;
        if (isAudio)
            text << config.channels << " at " << config.sampleRate;
        else
            text << config.color->bitsPerChannel << " bits";
        EXPECT_EQ(text.str(), row.told);
    }
}

} // namespace
