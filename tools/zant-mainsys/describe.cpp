#include "describe.h"

#include "arbiter.h"

#include <algorithm>
#include <cstdio>

namespace mainsys {

namespace {

unsigned word(const std::string& bytes, size_t at) {
    return static_cast<unsigned char>(bytes[at]) << 8U | static_cast<unsigned char>(bytes[at + 1]);
}

std::string videoFormat(const std::string& bytes) {
    const std::string marker("\xde\xad\xbe\xaf\xff\0", 6);
    if (bytes.size() != 22 || bytes.compare(0, marker.size(), marker) != 0)
        return {};
    char text[160];
    snprintf(text, sizeof text, "video %ux%u display %ux%u aspect %u/%u rate %u/%u", word(bytes, 6),
             word(bytes, 8), word(bytes, 10), word(bytes, 12), word(bytes, 14), word(bytes, 16),
             word(bytes, 18), word(bytes, 20));
    return text;
}

std::string window(const std::string& bytes) {
    if (bytes.size() != 8)
        return {};
    char text[80];
    snprintf(text, sizeof text, "window %d,%d %ux%u", static_cast<int16_t>(word(bytes, 0)),
             static_cast<int16_t>(word(bytes, 2)), word(bytes, 4), word(bytes, 6));
    return text;
}

/// With or without its terminating zero.
std::string plainText(const std::string& bytes) {
    std::string text = bytes;
    if (!text.empty() && text.back() == '\0')
        text.pop_back();
    const bool printable =
        std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
    return printable && !text.empty() ? "'" + text + "'" : std::string();
}

std::string firstBytes(const std::string& bytes) {
    constexpr size_t most = 32;
    std::string text = "bytes";
    char byte[4];
    for (size_t i = 0; i < std::min(bytes.size(), most); ++i) {
        snprintf(byte, sizeof byte, " %02x", static_cast<unsigned char>(bytes[i]));
        text += byte;
    }
    return bytes.size() > most ? text + " ..." : text;
}

bool namesKinds(uint32_t signal) {
    const auto those = {SIG_ID_MPLAYER_DECODER_NEEDED_IND, SIG_ID_MPLAYER_DECODER_AVAILABLE_IND,
                        SIG_ID_MPLAYER_DECODER_RELEASE_REQ, SIG_ID_MPLAYER_DECODER_RELEASE_RESP};
    return std::find(those.begin(), those.end(), signal) != those.end();
}

} // namespace

std::string signalName(const ZantMsgBody& body) {
    if (body.signalId >= nrOfSignalIds)
        return "SIGNAL_" + std::to_string(body.signalId);
    return GetSignalIdNamePtr(static_cast<SignalIds>(body.signalId));
}

std::string describe(const Signal& signal) {
    const ZantMsgBody& body = signal.body;
    std::string text;
    const struct {
        const char* name;
        int32_t value;
    } parameters[] = {{"param1", body.param1},       {"param2", body.param2},
                      {"param3", body.param3},       {"param4", body.param4},
                      {"cookie", body.responseInfo}, {"cookie2", body.responseInfo2},
                      {"size", body.signalSize}};
    for (const auto& parameter : parameters)
        if (parameter.value != 0)
            text += " " + std::string(parameter.name) + "=" + std::to_string(parameter.value);
    if (namesKinds(body.signalId))
        text += " (" + kindsText(static_cast<uint32_t>(body.param1)) + ")";
    if (signal.sequence() != 0)
        text += " seq=" + std::to_string(signal.sequence());
    const std::string payload = describePayload(signal);
    return payload.empty() ? text : text + " " + payload;
}

ScriptValue parametersOf(const Signal& signal) {
    const ZantMsgBody& body = signal.body;
    ScriptValue parameters{{"number", body.signalId}, {"param1", body.param1},
                           {"param2", body.param2},   {"param3", body.param3},
                           {"param4", body.param4},   {"sequence", signal.sequence()}};
    if (namesKinds(body.signalId))
        parameters["kinds"] = nameOf(static_cast<uint32_t>(body.param1));
    if (const std::string payload = describePayload(signal); !payload.empty())
        parameters["payload"] = payload;
    return parameters;
}

std::string describePayload(const Signal& signal) {
    const std::string& bytes = signal.payload;
    const auto read = signal.body.signalId == SIG_ID_MPLAYER_VIDEO_FORMAT_IND ? videoFormat
                      : signal.body.signalId == SIG_ID_MPLAYER_SET_WINDOW_REQ ? window
                                                                              : plainText;
    const std::string text = bytes.empty() ? std::string() : read(bytes);
    return bytes.empty() || !text.empty() ? text : firstBytes(bytes);
}

} // namespace mainsys
