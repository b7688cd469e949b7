#include "codec/codecutil.h"
#include "backend/gstnox_backend.h"
#include "base/gstnox_debug.h"

#include <array>
#include <cstdlib>
#include <iterator>
#include <string_view>

#define GST_CAT_DEFAULT gst_backend_debug

const char* const GstNoxBackend::SUPPORTED_MEDIA_TYPES[] = {
    "application/ogg",
    "audio/3gpp",
    "audio/3gpp2",
    "audio/aac",
    "audio/aacp",
    "audio/ac3",
    "audio/aiff",
    "audio/amr-wb",
    "audio/amr",
    "audio/eac3",
    "audio/flac",
    "audio/mid",
    "audio/midi",
    "audio/mp2",
    "audio/mp3",
    "audio/mp4",
    "audio/MP4A-LATM",
    "audio/mpeg",
    "audio/mpeg4-generic",
    "audio/ogg",
    "audio/vorbis",
    "audio/wav",
    "audio/wave",
    "audio/webm",
    "audio/x-ac3",
    "audio/x-aiff",
    "audio/x-eac3",
    "audio/x-flac",
    "audio/x-matroska",
    "audio/x-midi",
    "audio/x-ms-wma",
    "audio/x-opus",
    "audio/x-wav",
    "audio/x-wavpack",
    "video/3gpp",
    "video/3gpp2",
    "video/avi",
    "video/h264",
    "video/H264",
    "video/h265",
    "video/H265",
    "video/mp2t",
    "video/mp4",
    "video/mpeg",
    "video/mpeg4",
    "video/msvideo",
    "video/ogg",
    "video/quicktime",
    "video/webm",
    "video/x-flv",
    "video/x-h264",
    "video/x-h265",
    "video/x-matroska",
    "video/x-ms-asf",
    "video/x-ms-wmv",
    "video/x-msvideo",
    "video/x-vp8",
    "video/x-vp9",
    nullptr,
};

const char* const GstNoxBackend::SUPPORTED_CODECS[] = {
    "mp4a", "ac-3", "ec-3", "vorbis", "opus", "mp3",  "avc1", "avc3", "av01",  "vp9",
    "vp09", "hvc1", "hev1", "theora", "dva1", "dvav", "dvh1", "dvhe", nullptr,
};

// 4096 wide demands its exact height here, unlike every other row.
const GstNoxBackend::CodecSpec GstNoxBackend::HEVC_CODEC_SPEC[] = {
    {2560, -1440, 60}, {3840, -2160, 60}, {4096, 2048, 60}, {0, 0, 0}};

const GstNoxBackend::CodecSpec GstNoxBackend::VP9_CODEC_SPEC[] = {
    {2560, -1440, 60}, {3840, -2160, 60}, {4096, -2160, 60}, {4096, -2304, 30}, {0, 0, 0}};

namespace {

/// "codecs:... width:... " and so on, for the log; what does not fit is cut.
std::array<char, 1024> describe(const UVABackend::ContentDescription& description) {
    std::array<char, 1024> line{};
    const char* lead = "codecs:";
    for (const auto& codec : description.codecs) {
        g_strlcat(line.data(), lead, line.size());
        g_strlcat(line.data(), codec.c_str(), line.size());
        lead = ";";
    }
    using Description = UVABackend::ContentDescription;
    struct Row {
        const char* format;
        std::string Description::*member;
    };
    static const std::array rows{
        Row{" width:%4s", &Description::width},
        Row{" height:%4s", &Description::height},
        Row{" framerate:%s", &Description::framerate},
        Row{" bitrate:%s", &Description::bitrate},
        Row{" channels:%s", &Description::channels},
        Row{" cryptoblockformat:%s", &Description::cryptoblockformat},
        Row{" drmID:%s", &Description::drmID},
        Row{" drm_robustness:%s", &Description::drm_robustness},
    };
    for (const auto& row : rows) {
        const std::string& value = description.*row.member;
        if (value.empty())
            continue;
        std::array<char, 128> piece{};
        G_GNUC_BEGIN_IGNORE_DEPRECATIONS
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // the formats stand in the table above
        g_snprintf(piece.data(), piece.size(), row.format, value.c_str());
#pragma GCC diagnostic pop
        G_GNUC_END_IGNORE_DEPRECATIONS
        g_strlcat(line.data(), piece.data(), line.size());
    }
    return line;
}

/// A whole number that is at most `limit`; an empty text is 0.
bool parseWhole(const std::string& text, int limit, int& value) {
    int denominator = 0;
    return gst_tools_parse_real(text.c_str(), &value, &denominator) && denominator == 1 &&
           value <= limit;
}

struct StrvDeleter {
    void operator()(gchar** fields) const { g_strfreev(fields); }
};

/// Fields of a "vp09.PP.LL.DD.CC.cp.tc.mc.FF" codec string (the VP codec ISO media binding).
bool isVp9ProfileSupported(const char* codec) {
    constexpr guint transferField = 6;
    constexpr guint matrixField = 7;
    constexpr int highestLevel = 51;
    const std::unique_ptr<gchar*, StrvDeleter> owner(g_strsplit(codec, ".", -1));
    gchar** fields = owner.get();
    const guint count = g_strv_length(fields);
    bool supported = true;
    const auto refuseIf = [&supported](bool unfit, const char* what) {
        if (unfit)
            GST_DEBUG("%s not supported\n", what);
        supported = supported && !unfit;
    };
    const auto isReserved = [&](guint field) {
        return count > field && std::string_view(fields[field]) == "99";
    };
    refuseIf(isReserved(transferField), "transfer characteristics");
    refuseIf(isReserved(matrixField), "matrix coefficients");
    const auto number = [&](guint field) { return std::strtol(fields[field], nullptr, 10); };
    refuseIf(count > 1 && number(1) != 0 && number(1) != 2, "profile");
    refuseIf(count > 2 && number(2) > highestLevel, "level");
    return supported;
}

} // namespace

bool GstNoxBackend::canPlayType(const ContentDescription& description) {
    constexpr double fastestRate = 240.0;
    GST_INFO("type:'%s' %s", description.type.c_str(), describe(description).data());

    using Description = ContentDescription;
    constexpr struct {
        std::string Description::*member;
        int limit;
        const char* failure;
    } wholes[] = {
        {&Description::width, 10240, "desc.width failed, or it exceeds the limit"},
        {&Description::height, 8192, "desc.height failed, or it exceeds the limit"},
        {&Description::bitrate, G_MAXINT, "desc.bitrate failed"},
        {&Description::channels, 10, "desc.channels failed, or it exceeds the limit"},
    };
    std::array<int, std::size(wholes)> values{};
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (parseWhole(description.*wholes[i].member, wholes[i].limit, values[i]))
            continue;
        GST_DEBUG("result: NO (parse %s)", wholes[i].failure);
        return false;
    }
    const int width = values[0];
    const int height = values[1];
    int rateNumerator = 0;
    int rateDenominator = 1;
    if (!gst_tools_parse_real(description.framerate.c_str(), &rateNumerator, &rateDenominator)) {
        GST_DEBUG("result: NO (parse desc.framerate failed)");
        return false;
    }
    if (static_cast<double>(rateNumerator) / rateDenominator > fastestRate) {
        GST_DEBUG("result: NO (desc.framerate exceeds hardcoded limit)");
        return false;
    }
    const int rate = rateNumerator / rateDenominator;
    for (const auto& codec : description.codecs)
        if (!isCodecPlayable(codec.c_str(), width, height, rate))
            return false;
    if (description.type.empty() || isMediaTypeSupported(description.type.c_str()))
        return true;
    GST_DEBUG("result: NO (not supported media type)");
    return false;
}

bool GstNoxBackend::isCodecPlayable(const char* codec, int width, int height, int fps) {
    if (!isCodecSupported(codec)) {
        GST_WARNING("codec '%s' not supported", codec);
        return false;
    }
    if (width > 4096 || height > 2160) {
        GST_DEBUG("result: NO (8K not supported, %d x %d)", width, height);
        return false;
    }
    if (height <= 1080 || width <= 1920)
        return true;
    const bool isVp9 = g_str_has_prefix(codec, "vp9") || g_str_has_prefix(codec, "vp09");
    if (isVp9 && !isSpecSupported(VP9_CODEC_SPEC, width, height, fps)) {
        GST_DEBUG("result: NO (out of VP9 spec, %d x %d @ %dHz)", width, height, fps);
        return false;
    }
    // By this name only: strings such as "hvc1..." and "hev1..." are not held to the table.
    if (g_str_has_prefix(codec, "hevc") && !isSpecSupported(HEVC_CODEC_SPEC, width, height, fps)) {
        GST_DEBUG("result: NO (out of HEVC spec, %d x %d @ %dHz)", width, height, fps);
        return false;
    }
    return true;
}

bool GstNoxBackend::isCodecSupported(const char* codec) {
    if (codec == nullptr)
        return false;
    bool known = false;
    for (const char* const* row = SUPPORTED_CODECS; *row != nullptr && !known; ++row)
        known = g_str_has_prefix(codec, *row);
    if (!known)
        return false;
    GST_INFO("codec=%s", codec);
    return !g_str_has_prefix(codec, "vp09.") || isVp9ProfileSupported(codec);
}

bool GstNoxBackend::isSpecSupported(const CodecSpec* table, int width, int height, int fps) {
    for (const CodecSpec* row = table; row->width != 0; ++row) {
        const bool heightFits =
            row->height < 0 ? height <= -row->height : row->height != 0 && height == row->height;
        if (row->width == width && row->fps >= fps && heightFits)
            return true;
    }
    return false;
}

bool GstNoxBackend::isMediaTypeSupported(const char* type) {
    if (type == nullptr)
        return false;
    for (const char* const* row = SUPPORTED_MEDIA_TYPES; *row != nullptr; ++row)
        if (std::string_view(*row) == type)
            return true;
    return false;
}

bool GstNoxBackend::getSupportedMimetypes(char**& types) {
    GST_LOG("list of types:");
    types = new char* [std::size(SUPPORTED_MEDIA_TYPES)] {};
    char** next = types;
    for (const char* const* row = SUPPORTED_MEDIA_TYPES; *row != nullptr; ++row) {
        ContentDescription description;
        description.type = *row;
        if (!canPlayType(description))
            continue;
        *next = g_strdup(*row);
        GST_LOG("  %s", *next);
        ++next;
    }
    return true;
}
