// What the backend makes of codec data, numbers and stream configurations, held against the
// installed parsers, decoders and the simulated sinks; what it does with the metas of encrypted
// samples; and the reasons it gives for refusing content types.

#include "codeccaps.h"
#include "codecheaders.h"
#include "codecutil.h"
#include "gst_ptr.h"
#include "gstnox_backend.h"
#include "gstnox_plugin.h"
#include "support/log_capture.h"
#include "support/media_host.h"
#include "uva/uva_drm_backend.h"
#include "uva/uva_stream_config.h"
#include "uva_gstcontentprotection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <set>

namespace {

using support::LogCapture;
using Bytes = std::vector<guint8>;
using Caps = GstPtr<GstCaps>;
using Config = UVAStreamConfig;

std::string operator""_s(const char* text, std::size_t size) {
    return {text, size};
}

Bytes bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

std::string text(const Caps& caps) {
    return GCharPtr(gst_caps_to_string(caps.get())).get();
}

std::string print(const std::string& description) {
    return text(Caps::adopt(gst_caps_from_string(description.c_str())));
}

Bytes contentOf(GstBuffer* buffer) {
    Bytes bytes(gst_buffer_get_size(buffer));
    gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
    return bytes;
}

/// The buffers of the caps' "streamheader".
std::vector<Bytes> streamHeaders(const Caps& caps) {
    const auto* array =
        gst_structure_get_value(gst_caps_get_structure(caps.get(), 0), "streamheader");
    std::vector<Bytes> headers;
    for (guint i = 0; array != nullptr && i < gst_value_array_get_size(array); ++i)
        headers.push_back(contentOf(gst_value_get_buffer(gst_value_array_get_value(array, i))));
    return headers;
}

Caps withoutField(const Caps& caps, const char* field) {
    auto copy = Caps::adopt(gst_caps_copy(caps.get()));
    gst_structure_remove_field(gst_caps_get_structure(copy.get(), 0), field);
    return copy;
}

class CodecTest : public testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(BackendInit(nullptr)); }
};

// ---- numbers

TEST_F(CodecTest, NumbersAreReadExactlyOrRefused) {
    const struct {
        const char* text;
        int numerator, denominator; // 0: refused
    } rows[] = {
        {"", 0, 1},
        {"2147483647", 2147483647, 1},
        {"2147483648", 0, 0},
        {"3000000000", 0, 0},
        {"18446744073709551616", 0, 0},
        {"30000/1001", 30000, 1001},
        {"1/2147483647", 1, 2147483647},
        {"1/2147483648", 0, 0},
        {"1/0", 0, 0},
        {"1/", 0, 0},
        {"1/2.5", 0, 0},
        {"29.97", 2997, 100},
        {"23,976", 2997, 125},
        {"60.5", 121, 2},
        {"12.", 12, 1},
        {"0.0000000000000000000", 0, 1},
        {"2147483647.5", 2147483647, 1}, // halved until it fits
        {"1000000000.3", 1250000000, 1}, // 10000000003/10, halved until it fits
        {"0.00000000001", 0, 0},
        {"0.33333333333333333333", 0, 0},
        {"1.2.3", 0, 0},
        {"1.-2", 0, 0},
        {".5", 0, 0},
        {"-1", 0, 0},
        {"1 ", 0, 0},
        {"0x10", 0, 0},
        {"abc", 0, 0},
        {nullptr, 0, 0},
    };
    for (const auto& row : rows) {
        int numerator = -7;
        int denominator = -7;
        const bool valid = row.denominator != 0;
        const auto* name = row.text != nullptr ? row.text : "null";
        EXPECT_EQ(gst_tools_parse_real(row.text, &numerator, &denominator), valid) << name;
        EXPECT_EQ(numerator, valid ? row.numerator : -7) << name;
        EXPECT_EQ(denominator, valid ? row.denominator : -7) << name;
    }
}

// ---- headers

/// An "OpusHead" of 312 samples to skip, 48 kHz and a gain of -2.
Bytes opusHead(guint8 channels, guint8 family, const Bytes& mapping = {}, guint8 version = 1) {
    return bytesOf("OpusHead") +
           Bytes{version, channels, 0x01, 0x38, 0, 0, 0xBB, 0x80, 0xFF, 0xFE, family} + mapping;
}

TEST_F(CodecTest, OpusHeadersAreReadOrRefused) {
    const Bytes fiveOne = {4, 2, 0, 4, 1, 2, 3, 255};
    Bytes truncated = opusHead(6, 1, fiveOne);
    truncated.pop_back();
    const auto stereo = opusHead(2, 0);
    const struct {
        const char* what;
        Bytes data;
        bool valid;
        int streams, coupled;
    } rows[] = {
        {"mono", opusHead(1, 0), true, 1, 0},
        {"stereo", stereo, true, 1, 1},
        {"more behind it", stereo + Bytes{1, 2, 3}, true, 1, 1},
        {"three channels of family 0", opusHead(3, 0), false, 0, 0},
        {"5.1", opusHead(6, 1, fiveOne), true, 4, 2},
        {"all streams there can be", opusHead(1, 255, {255, 0, 254}), true, 255, 0},
        {"truncated mapping", truncated, false, 0, 0},
        {"no stream count", opusHead(1, 1), false, 0, 0},
        {"no streams", opusHead(1, 1, {0, 0, 255}), false, 0, 0},
        {"more coupled than streams", opusHead(1, 1, {1, 2, 0}), false, 0, 0},
        {"too many decoded channels", opusHead(1, 1, {128, 128, 0}), false, 0, 0},
        {"mapping out of range", opusHead(2, 1, {1, 1, 0, 2}), false, 0, 0},
        {"no channels", opusHead(0, 0), false, 0, 0},
        {"version 15", opusHead(2, 0, {}, 15), true, 1, 1},
        {"version 16", opusHead(2, 0, {}, 16), false, 0, 0},
        {"18 bytes", {stereo.begin(), stereo.end() - 1}, false, 0, 0},
        {"other text", bytesOf("OpusTags") + Bytes(11, 1), false, 0, 0},
        {"nothing", {}, false, 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const Bytes odd = Bytes{0} + row.data; // at any address
        OpusHeader header;
        header.channels = 77;
        const auto* data = odd.data() + 1;
        const auto size = row.data.size();
        const auto caps = Caps::adopt(gst_opus_create_caps_from_header(data, size));
        ASSERT_EQ(opus_header_parse(data, size, &header), row.valid);
        ASSERT_EQ(static_cast<bool>(caps), row.valid);
        if (!row.valid) {
            EXPECT_EQ(header.channels, 77) << "stored nothing";
            continue;
        }
        EXPECT_EQ(header.streamCount, row.streams);
        EXPECT_EQ(header.coupledCount, row.coupled);
        EXPECT_EQ(header.preSkip, 312);
        EXPECT_EQ(header.sampleRate, 48000U);
        EXPECT_EQ(header.outputGain, -2);
        auto comments = bytesOf("OpusTags\4\0\0\0unkn"_s);
        comments.resize(24);
        EXPECT_EQ(streamHeaders(caps), (std::vector<Bytes>{row.data, comments}));
    }
    EXPECT_EQ(opus_header_parse(nullptr, 100, nullptr), FALSE);

    for (const auto& [rate, told] :
         std::vector<std::pair<Bytes, int>>{{{0x7F, 255, 255, 255}, INT_MAX},
                                            {{0, 0, 0, 1}, 1},
                                            {{0x80, 0, 0, 0}, -7},
                                            {{0, 0, 0, 0}, -7}}) {
        Bytes header = stereo;
        std::copy(rate.begin(), rate.end(), header.begin() + 12);
        const auto caps =
            Caps::adopt(gst_opus_create_caps_from_header(header.data(), header.size()));
        int seen = -7;
        gst_structure_get_int(gst_caps_get_structure(caps.get(), 0), "rate", &seen);
        EXPECT_EQ(seen, told);
    }

    const auto six = opusHead(6, 1, fiveOne);
    const auto caps = Caps::adopt(gst_opus_create_caps_from_header(six.data(), six.size()));
    EXPECT_EQ(text(withoutField(caps, "streamheader")),
              print("audio/x-opus, channel-mapping-family=1, channels=6, stream-count=4, "
                    "coupled-count=2, rate=48000, channel-mapping=(int)<0, 4, 1, 2, 3, 255>"));
}

const Bytes vorbisIdentification =
    bytesOf("\1vorbis\0\0\0\0\2\x44\xAC\0\0\0\0\0\0\0\0\0\0\0\0\0\0\xB8\1"_s);
const Bytes vorbisComments = bytesOf("\3vorbis\0\0\0\0\0\0\0\0\1"_s);
const Bytes vorbisSetup = bytesOf("\5vorbis"_s) + Bytes(40, 7);

TEST_F(CodecTest, VorbisHeadersAreFoundOrCounted) {
    const auto text = bytesOf("vorbis");
    const struct {
        const char* what;
        Bytes data;
        std::vector<Bytes> headers;
        int found;
    } rows[] = {
        {"three headers",
         vorbisIdentification + vorbisComments + vorbisSetup,
         {vorbisIdentification, vorbisComments, vorbisSetup},
         3},
        {"lacing before them",
         Bytes{2, 30, 16} + vorbisIdentification + vorbisComments + vorbisSetup,
         {vorbisIdentification, vorbisComments, vorbisSetup},
         3},
        {"two headers", vorbisIdentification + vorbisComments, {}, 2},
        {"no type before the first", text + vorbisComments + vorbisSetup, {}, 2},
        {"the text alone", text, {}, 0},
        {"other bytes", Bytes(100, 'v'), {}, 0},
        {"nothing", {}, {}, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        LogCapture log(gst_backend_debug);
        const Bytes data(row.data.begin(), row.data.end());
        const auto caps = Caps::adopt(gst_caps_new_empty_simple("audio/x-vorbis"));
        EXPECT_EQ(gst_vorbis_set_extra_data(caps.get(), data.data(), data.size()), row.found == 3);
        EXPECT_EQ(streamHeaders(caps), row.headers);
        EXPECT_EQ(log.has("ERROR Found only " + std::to_string(row.found) +
                          " Vorbis headers and expected to find at least 3"),
                  row.found < 3);
    }
}

// ---- stream configurations

const Bytes avcC = {1, 66, 192, 30, 255, 224, 0}; // parameter sets in the stream
const Bytes aacLc = {0x11, 0x90};                 // 48 kHz, stereo
const Bytes vorbisHeaders = vorbisIdentification + vorbisComments + vorbisSetup;

Config configOf(int codec, const Bytes& data = {}) {
    Config config;
    config.codec = codec;
    config.codecData = data.empty() ? nullptr : data.data();
    config.codecDataSize = data.size();
    config.sampleRate = 48000;
    config.channels = 2;
    config.width = 1920;
    config.height = 1080;
    return config;
}

Caps capsOf(const Config& config) {
    return Caps::adopt(gst_caps_create_from_config(&config));
}

/// The element's template covers the caps, and unless asked not to, a stream of them starts.
bool takes(const std::string& factory, const Caps& caps, bool starts = true) {
    const auto element =
        GstPtr<GstElement>::sink(gst_element_factory_make(factory.c_str(), nullptr));
    if (!element)
        return false;
    const auto pad = GstPtr<GstPad>::adopt(gst_element_get_static_pad(element.get(), "sink"));
    const auto all = Caps::adopt(gst_pad_get_pad_template_caps(pad.get()));
    const bool covered = gst_caps_is_subset(caps.get(), all.get());
    if (!covered || !starts)
        return covered;
    gst_element_set_state(element.get(), GST_STATE_PAUSED);
    const bool started = gst_pad_send_event(pad.get(), gst_event_new_stream_start("test")) &&
                         gst_pad_send_event(pad.get(), gst_event_new_caps(caps.get()));
    gst_element_set_state(element.get(), GST_STATE_NULL);
    return started;
}

TEST_F(CodecTest, EveryCodecsCapsAreTakenByItsParsersDecodersAndSinks) {
    constexpr auto* adts = "audio/mpeg, mpegversion=4, framed=true, stream-format=adts";
    const auto opus = opusHead(2, 0);
    const struct {
        int codec;
        Bytes data;
        const char* caps;
        std::vector<const char*> elements;
    } rows[] = {
        {1001, {}, adts, {"aacparse"}},
        {1001, aacLc, adts, {"aacparse"}},
        {1013, {}, adts, {"aacparse"}},
        {1014, {}, adts, {"aacparse"}},
        {1002, {}, "audio/mpeg, mpegversion=1, layer=3", {"mpegaudioparse"}},
        {1004, vorbisHeaders, "audio/x-vorbis", {"vorbisdec"}},
        {1004, {}, "audio/x-vorbis", {"vorbisdec"}},
        {1005,
         opus,
         "audio/x-opus, channel-mapping-family=0, stream-count=1, coupled-count=1",
         {"opusdec", "opusparse"}},
        {1006, {}, "audio/x-eac3", {"ac3parse"}},
        {1007, {}, "audio/x-ac3", {"ac3parse"}},
        {1009, {}, "audio/x-dts", {"dcaparse"}},
        {2001, {}, "video/x-h264, stream-format=byte-stream, alignment=au", {"h264parse"}},
        {2001, avcC, "video/x-h264", {"h264parse"}},
        {2002, {}, "video/x-h265, stream-format=byte-stream", {"h265parse"}},
        {2007, {}, "video/x-vp8", {"vp8dec"}},
        {2008, {}, "video/x-vp9", {"vp9dec", "vp9parse"}},
        {2008, {1, 2, 3}, "video/x-vp9", {"vp9dec", "vp9parse"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.codec);
        const bool video = Config::av(row.codec) == Config::VIDEO_STREAM;
        const auto caps = capsOf(configOf(row.codec, row.data));
        ASSERT_TRUE(caps);
        // An Opus decoder's header is turned round on the way to it, by the sink.
        for (const std::string element : row.elements)
            EXPECT_TRUE(takes(element, caps, element != "opusdec")) << element << text(caps);
        EXPECT_TRUE(takes(video ? "halvideosink" : "halaudiosink", caps, false)) << text(caps);

        EXPECT_EQ(streamHeaders(caps).size(), row.data == vorbisHeaders ? 3U
                                              : row.data == opus        ? 2U
                                                                        : 0U);
        const auto* structure = gst_caps_get_structure(caps.get(), 0);
        const auto* data = gst_structure_get_value(structure, "codec_data");
        ASSERT_EQ(data != nullptr, !row.data.empty() && row.codec != Config::CODEC_VORBIS);
        if (data != nullptr) {
            EXPECT_EQ(contentOf(gst_value_get_buffer(data)), row.data);
        }
        const auto wanted = Caps::adopt(gst_caps_from_string(
            (row.caps + (video ? ", width=1920, height=1080"_s : ", rate=48000, channels=2"_s))
                .c_str()));
        const auto plain = withoutField(withoutField(caps, "codec_data"), "streamheader");
        EXPECT_TRUE(gst_caps_is_strictly_equal(plain.get(), wanted.get())) << text(plain);
    }
}

TEST_F(CodecTest, WhatIsNoStreamHasNoCaps) {
    LogCapture log(gst_backend_debug);
    EXPECT_EQ(gst_caps_create_from_config(nullptr), nullptr);
    for (const int codec : {0, -1, 1000, 1003, 1999, 2003, 2999, INT_MAX}) {
        EXPECT_FALSE(capsOf(configOf(codec)));
        EXPECT_TRUE(log.has("ERROR Unknown stream config " + std::to_string(codec)));
    }
    const auto known = log.lines().size();
    EXPECT_FALSE(capsOf(configOf(Config::CODEC_OPUS, opusHead(3, 0))));
    EXPECT_FALSE(capsOf(configOf(Config::CODEC_OPUS)));
    EXPECT_EQ(log.lines().size(), known) << "logged nothing";
}

TEST_F(CodecTest, ColoursAndMasteringReachTheCaps) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    constexpr double infinity = std::numeric_limits<double>::infinity();
    const Config::ColorInfo hdr10 = {9, 1, 16, 9, 10};
    const Config::ColorInfo fullRange = {2, 2, 2, 2, ~0U};
    const Config::ColorInfo unknown = {2, 0, 2, 2, ~0U};
    const Config::ColorInfo hostile = {~0U, ~0U, ~0U, ~0U, ~0U - 1};
    const Config::MasteringMetadata p3 = {0.68, 0.32,   0.265,  0.69, 0.15,
                                          0.06, 0.3127, 0.3290, 1000, 0.0003};
    const Config::MasteringMetadata odd = {nan,   infinity, -infinity, -1,    1.4,
                                           1e300, 1,        0,         1e300, nan};
    const struct {
        const Config::ColorInfo* color;
        const Config::MasteringMetadata* mastering;
        const char* fields;
    } rows[] = {
        {nullptr, nullptr, ""},
        {&unknown, nullptr, ""},
        {&hdr10, nullptr, ", colorimetry=bt2100-pq, bits_per_channel=(gint64)10"},
        {&fullRange, nullptr, ", colorimetry=(string)\"1:0:0:0\""},
        {&hostile, nullptr, ", bits_per_channel=(gint64)4294967294"},
        {nullptr, &p3,
         ", mastering-display-info=(string)\"34000:16000:13250:34500:7500:3000:15635:16450:"
         "10000000:3\""},
        {nullptr, &odd,
         ", mastering-display-info=(string)\"0:65535:0:0:65535:65535:50000:0:2147483647:0\""},
    };
    for (const auto& row : rows) {
        LogCapture log(gst_backend_debug);
        auto config = configOf(Config::CODEC_VP9);
        config.color = row.color;
        config.mastering = row.mastering;
        EXPECT_EQ(text(capsOf(config)),
                  print("video/x-vp9, width=1920, height=1080"_s + row.fields));
        EXPECT_EQ(log.has("LOG HDR: Color format information present"), row.color != nullptr);
        EXPECT_EQ(log.has("LOG colorimetri=9:1:16:9"), row.color == &hdr10);
        EXPECT_EQ(log.has("LOG mastering_metadata=0.680:0.320:0.265:0.690:0.150:0.060:0.313:0.329:"
                          "1000.000:0.000"),
                  row.mastering == &p3);
    }
    auto video = configOf(Config::CODEC_VP9);
    video.width = -1;
    video.height = INT_MIN;
    EXPECT_EQ(text(capsOf(video)), "video/x-vp9");
    auto audio = configOf(Config::CODEC_DTS);
    audio.sampleRate = INT_MIN;
    audio.channels = 0;
    audio.color = &hdr10;
    EXPECT_EQ(text(capsOf(audio)), "audio/x-dts");
}

// ---- factories

struct TestFactory {
    const char* name;
    guint rank;
    const char* klass;
    GstPadDirection direction;
    const char* caps;
};
constexpr TestFactory testFactories[] = {
    {"codectestlow", 100, "Codec/Parser/Converter", GST_PAD_SINK, "application/x-codectest"},
    {"codectesthigh", 300, "codec/PARSER", GST_PAD_SINK, "video/x-raw; application/x-codectest"},
    {"codectestequal", 300, "Codec/Parser", GST_PAD_SINK, "application/x-codectest"},
    {"codectestdecoder", 400, "Codec/Decoder", GST_PAD_SINK, "application/x-codectest"},
    {"codectestunranked", 0, "Codec/Parser", GST_PAD_SINK, "application/x-codectest"},
    {"codectestany", 500, "Codec/Parser", GST_PAD_SINK, "ANY"},
    {"codectestsource", 500, "Codec/Parser", GST_PAD_SRC, "application/x-codectest"},
    {"codectestother", 500, "Codec/Parser", GST_PAD_SINK, "application/x-codectest, version=2"},
};

void describeTestFactory(gpointer klass, gconstpointer data) {
    const auto& row = *static_cast<const TestFactory*>(data);
    auto* element = GST_ELEMENT_CLASS(klass);
    gst_element_class_set_metadata(element, row.name, row.klass, row.name, "test");
    const auto caps = Caps::adopt(gst_caps_from_string(row.caps));
    gst_element_class_add_pad_template(
        element, gst_pad_template_new("pad", row.direction, GST_PAD_ALWAYS, caps.get()));
}

void registerTestFactories() {
    for (const auto& row : testFactories) {
        GTypeInfo info = {};
        info.class_size = sizeof(GstElementClass);
        info.class_init = [](gpointer klass, gpointer data) { describeTestFactory(klass, data); };
        info.class_data = &row;
        info.instance_size = sizeof(GstElement);
        gst_element_register(
            nullptr, row.name, row.rank,
            g_type_register_static(GST_TYPE_ELEMENT, row.name, &info, GTypeFlags(0)));
    }
}

std::vector<std::string> namesOf(const GQueue* factories) {
    std::vector<std::string> names;
    for (const auto* node = factories->head; node != nullptr; node = node->next)
        names.emplace_back(GST_OBJECT_NAME(node->data));
    return names;
}

TEST_F(CodecTest, FactoriesAreChosenByCapsKlassAndRank) {
    registerTestFactories();
    const auto low =
        GstPtr<GstElementFactory>::adopt(gst_element_factory_find(testFactories[0].name));
    ASSERT_TRUE(low);
    const auto references = GST_OBJECT_REFCOUNT_VALUE(low.get());
    const auto caps = Caps::adopt(gst_caps_from_string("application/x-codectest, version=1"));

    GQueue* all = uva_gst_find_compatible_factories(caps.get());
    auto names = namesOf(all);
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()),
              (std::set<std::string>{"codectestlow", "codectesthigh", "codectestequal",
                                     "codectestdecoder"}));
    EXPECT_EQ(names.size(), 4U);
    names.erase(std::remove_if(
                    names.begin(), names.end(),
                    [](const auto& n) { return n == "codectestlow" || n == "codectestdecoder"; }),
                names.end());
    names.emplace_back("codectestlow");

    GQueue* parsers = uva_gst_find_compatible_sorted_factories_with_klass(caps.get(), "pArSeR");
    EXPECT_EQ(namesOf(parsers), names) << "best first, equals as they came";
    for (const auto& [klass, expected] : std::vector<std::pair<const char*, std::string>>{
             {"parser", names[0]}, {"DECODER", "codectestdecoder"}, {"Demuxer", ""}}) {
        const auto element =
            GstPtr<GstElement>::sink(uva_gst_create_best_element_by_klass(all, klass));
        ASSERT_EQ(static_cast<bool>(element), !expected.empty()) << klass;
        if (element) {
            EXPECT_EQ(GST_OBJECT_NAME(gst_element_get_factory(element.get())), expected);
        }
    }
    EXPECT_EQ(uva_gst_create_best_element_by_klass(all, nullptr), nullptr);
    EXPECT_EQ(uva_gst_create_best_element_by_klass(nullptr, "Parser"), nullptr);
    uva_gst_free_factories(parsers);
    uva_gst_free_factories(all);
    uva_gst_free_factories(nullptr);
    EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(low.get()), references);

    GQueue* none = uva_gst_find_compatible_factories(nullptr);
    EXPECT_TRUE(g_queue_is_empty(none));
    uva_gst_free_factories(none);
}

TEST_F(CodecTest, AVp9StreamBeginsWithAKeyFrame) {
    const struct {
        std::vector<guint8> frame;
        bool begins;
    } rows[] = {
        {{0x82, 0x49, 0x83, 0x42, 0x00}, true},
        {{0xB0, 0x24, 0xC1, 0xA1, 0x00}, true},          // profile 3
        {{0x82, 0x49, 0x83, 0x42, 0xC0, 1, 0xC0}, true}, // ends with an index
        {{0x82, 0x49, 0x83, 0x42, 0x00, 1, 0xC0}, false},
        {{0x82, 0x49, 0x83, 0x42, 0xDF}, false},
        {{0x86, 0x00, 0x40, 0x92, 0x9C}, false}, // refers to others
        {{0xD8, 0x13, 0xD9, 0x18, 0x5A}, false}, // encrypted
        {{0x82, 0x49, 0x83, 0x42}, false},
        {{}, false},
    };
    for (const auto& row : rows)
        EXPECT_EQ(vp9_begins_stream(row.frame.data(), row.frame.size()), row.begins)
            << testing::PrintToString(row.frame);
}

} // namespace
