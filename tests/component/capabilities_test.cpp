// Which content types the backend says that it plays, and the reason that it logs for each refusal.

#include "one_backend.h"

#include <algorithm>

namespace {

using Description = UVABackend::ContentDescription;
using Lines = std::vector<std::string>;

class CapabilitiesTest : public OneBackend {
protected:
    /// The reasons are what is logged but for the questions themselves.
    void expectAnswer(const Description& description, const Lines& reasons) {
        LogCapture log(gst_backend_debug);
        EXPECT_EQ(backend.canPlayType(description), reasons.empty());
        Lines lines = log.lines();
        const auto question = lines.at(0);
        const auto isQuestion = [](auto& line) { return line.rfind("INFO", 0) == 0; };
        lines.erase(std::remove_if(lines.begin(), lines.end(), isQuestion), lines.end());
        EXPECT_EQ(lines, reasons) << question;
    }
};

const std::string noWidth = "DEBUG result: NO (parse desc.width failed, or it exceeds the limit)";
const std::string noHeight = "DEBUG result: NO (parse desc.height failed, or it exceeds the limit)";
const std::string noBitrate = "DEBUG result: NO (parse desc.bitrate failed)";
const std::string noChannels =
    "DEBUG result: NO (parse desc.channels failed, or it exceeds the limit)";
const std::string noRate = "DEBUG result: NO (parse desc.framerate failed)";
const std::string tooFast = "DEBUG result: NO (desc.framerate exceeds hardcoded limit)";
const std::string noType = "DEBUG result: NO (not supported media type)";
const std::string noProfile = "DEBUG profile not supported\n";
const std::string noLevel = "DEBUG level not supported\n";
const std::string noTransfer = "DEBUG transfer characteristics not supported\n";
const std::string noMatrix = "DEBUG matrix coefficients not supported\n";

Lines noCodec(const std::string& codec, Lines before = {}) {
    before.push_back("WARN codec '" + codec + "' not supported");
    return before;
}
Lines no8k(const std::string& size) {
    return {"DEBUG result: NO (8K not supported, " + size + ")"};
}
Lines outOf(const std::string& spec, const std::string& format) {
    return {"DEBUG result: NO (out of " + spec + " spec, " + format + "Hz)"};
}

TEST_F(CapabilitiesTest, WhatIsRefusedHasItsReasonLogged) {
    const struct {
        Lines codecs;
        const char *width, *height, *rate;
        Lines reasons; // none: playable
        const char* type = "";
        const char* channels = "";
        const char* bitrate = "";
    } rows[] = {
        {{}, "", "", "", {}, "video/mp4"},
        {{}, "", "", "", {noType}, "video/MP4"},
        {{}, "", "", "", {noType}, "video/mp"},
        {{}, "", "", "", {}, "video/H264"},
        {{"avc1"}, "", "", "", {noType}, "video/x-unheard-of"},
        {{}, "10240", "", "", {}},
        {{}, "10241", "", "", {noWidth}},
        {{}, "1920.5", "", "", {noWidth}},
        {{}, "wide", "8193", "", {noWidth}}, // the first reason alone
        {{}, "", "8192", "", {}},
        {{}, "", "8193", "", {noHeight}},
        {{}, "", "1080/7", "", {noHeight}},
        {{}, "", "", "", {}, "", "", "2147483647"},
        {{}, "", "", "", {noBitrate}, "", "", "1.5"},
        {{}, "", "", "", {noBitrate}, "", "eleven", "2147483648"},
        {{}, "", "", "", {}, "", "10"},
        {{}, "", "", "", {noChannels}, "", "11"},
        {{}, "", "", "", {noChannels}, "", "5.1"},
        {{}, "", "", "30000/1001", {}},
        {{}, "", "", "240", {}},
        {{}, "", "", "480/2", {}},
        {{}, "", "", "240.5", {tooFast}},
        {{}, "", "", "1/0", {noRate}},
        {{}, "", "", "30 fps", {noRate}},
        {{"avc1", "mp4v.20.9", "none"}, "", "", "", noCodec("mp4v.20.9"), "video/x-unheard-of"},
        // Sizes count where there is a codec, and lead to a table where both are large.
        {{"avc1"}, "4097", "100", "", no8k("4097 x 100")},
        {{"avc1"}, "100", "2161", "", no8k("100 x 2161")},
        {{"avc1"}, "4096", "2160", "200", {}},
        {{"vp9"}, "4096", "2304", "30", no8k("4096 x 2304")},
        {{"vp9"}, "3000", "1080", "", {}},
        {{"vp9"}, "1920", "2000", "", {}},
        {{"vp9"}, "1921", "1081", "", outOf("VP9", "1921 x 1081 @ 0")},
        {{"vp09.00.51.08"}, "3840", "2160", "60.5", {}}, // whole frames
        {{"vp09.00.51.08"}, "3840", "2160", "123/2", outOf("VP9", "3840 x 2160 @ 61")},
        {{"hev1.1.6.L153.B0"}, "3000", "2000", "", {}},
        {{"hevc"}, "4096", "2160", "", noCodec("hevc")}, // not a codec string at all
    };
    for (const auto& row : rows) {
        Description description;
        description.codecs = row.codecs;
        description.width = row.width;
        description.height = row.height;
        description.framerate = row.rate;
        description.type = row.type;
        description.channels = row.channels;
        description.bitrate = row.bitrate;
        expectAnswer(description, row.reasons);
    }
    EXPECT_FALSE(backend.isMediaTypeSupported(nullptr));
}

TEST_F(CapabilitiesTest, CodecsAreKnownByTheirPrefixAndTheirParts) {
    const auto expectCodec = [this](const std::string& codec, const Lines& reasons) {
        Description description;
        description.codecs = {codec};
        expectAnswer(description, reasons);
    };
    for (const char* known : {"avc1.640028", "vp09", "vp09.00", "vp09.2", "vp09.00.10.08.01.99",
                              "vp09.02.51.10.01.09.16.09"})
        expectCodec(known, {});
    for (const auto& unknown : Lines{"", "mp4", "Opus", std::string(5000, 'a')})
        expectCodec(unknown, noCodec(unknown));
    const std::pair<const char*, Lines> parts[] = {
        {"vp09.1", {noProfile}},
        {"vp09.01.10.08", {noProfile}},
        {"vp09.03.52", {noProfile, noLevel}},
        {"vp09.02.52.10", {noLevel}},
        {"vp09.00.10.08.01.01.99", {noTransfer}},
        {"vp09.00.10.08.01.01.98.99", {noMatrix}},
        {"vp09.0.1.8.1.1.99.99.0", {noTransfer, noMatrix}},
    };
    for (const auto& [codec, reasons] : parts)
        expectCodec(codec, noCodec(codec, reasons));
    EXPECT_FALSE(backend.isCodecSupported(nullptr));
}

TEST_F(CapabilitiesTest, SizesAndRatesAreHeldAgainstTheirRow) {
    const struct {
        int width, height, rate;
        bool vp9, hevc;
    } rows[] = {
        {2560, 1440, 60, true, true},   {2560, 1, 0, true, true},
        {2560, 1441, 60, false, false}, {2560, 1440, 61, false, false},
        {3840, 2160, 60, true, true},   {3840, 2161, 1, false, false},
        {4096, 2160, 60, true, false},  {4096, 2048, 60, true, true},
        {4096, 2047, 30, true, false},  {4096, 2048, 61, false, false},
        {4096, 2304, 30, true, false},  {4096, 2304, 31, false, false},
        {4096, 2305, 1, false, false},  {3000, 1440, 30, false, false},
        {0, 0, 0, false, false},
    };
    for (const auto& [width, height, rate, vp9, hevc] : rows) {
        SCOPED_TRACE(testing::Message() << width << " " << height << " " << rate);
        EXPECT_EQ(backend.isSpecSupported(GstNoxBackend::VP9_CODEC_SPEC, width, height, rate), vp9);
        EXPECT_EQ(backend.isSpecSupported(GstNoxBackend::HEVC_CODEC_SPEC, width, height, rate),
                  hevc);
    }
    const GstNoxBackend::CodecSpec heightless[] = {{640, 0, 60}, {0, 0, 0}};
    EXPECT_FALSE(backend.isSpecSupported(heightless, 640, 0, 30));
}

TEST_F(CapabilitiesTest, AQuestionIsLoggedAsFarAsThereIsRoom) {
    const auto logged = [this](const Description& description) {
        LogCapture log(gst_backend_debug);
        backend.canPlayType(description);
        return log.lines().at(0);
    };
    Description description;
    EXPECT_EQ(logged(description), "INFO type:'' ");
    description.type = "video/mp4";
    description.codecs = {"avc1.1", "mp4a.2"};
    description.width = "64";
    description.height = "48000";
    description.framerate = "25";
    description.bitrate = "9";
    description.channels = "2";
    description.cryptoblockformat = "subsample";
    description.drmID = "org.test";
    description.drm_robustness = std::string(200, 'x');
    EXPECT_EQ(logged(description),
              "INFO type:'video/mp4' codecs:avc1.1;mp4a.2 width:  64 height:48000 framerate:25 "
              "bitrate:9 channels:2 cryptoblockformat:subsample drmID:org.test drm_robustness:" +
                  std::string(127 - std::string(" drm_robustness:").size(), 'x'));
    description.codecs = {std::string(2000, 'y')};
    EXPECT_EQ(logged(description), "INFO type:'video/mp4' codecs:" +
                                       std::string(1023 - std::string("codecs:").size(), 'y'));
}

TEST_F(CapabilitiesTest, ListedTypesAreThoseThatTheBackendAnswersFor) {
    struct OggBackend final : GstNoxBackend {
        using GstNoxBackend::GstNoxBackend;
        bool canPlayType(const ContentDescription& d) override {
            return d.codecs.empty() && d.type.find("/ogg") != std::string::npos;
        }
    };
    const auto listed = [](GstNoxBackend& asked) {
        char** types = nullptr;
        EXPECT_TRUE(asked.getSupportedMimetypes(types));
        Lines list;
        for (char** type = types; *type != nullptr; ++type)
            list.emplace_back(GCharPtr(*type).get());
        delete[] types;
        return list;
    };
    OggBackend ogg(UVABackend::VideoElement, &client);
    EXPECT_EQ(listed(ogg), (Lines{"application/ogg", "audio/ogg", "video/ogg"}));
    const auto all = listed(backend);
    ASSERT_EQ(all.size(), 58U);
    for (std::size_t i = 0; i < all.size(); ++i)
        EXPECT_EQ(all[i], GstNoxBackend::SUPPORTED_MEDIA_TYPES[i]);
}

} // namespace
