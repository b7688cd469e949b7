#include "host/segment_parser.h"

#include "isobmff_parser.h"
#include "webm_parser.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace host {

SegmentParser::~SegmentParser() = default;
SegmentParser::Output::~Output() = default;

namespace {

/// Without parameters and spaces, in small letters.
std::string typeOf(const std::string& mimeType) {
    constexpr std::string_view spaces = " \t\r\n\f";
    auto type = mimeType.substr(0, mimeType.find(';'));
    type.erase(0, std::min(type.find_first_not_of(spaces), type.size()));
    type.erase(type.find_last_not_of(spaces) + 1);
    std::transform(type.begin(), type.end(), type.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return type;
}

} // namespace

std::unique_ptr<SegmentParser> SegmentParser::make(const std::string& mimeType, Output& output) {
    const auto type = typeOf(mimeType);
    if (type == "video/mp4" || type == "audio/mp4")
        return std::make_unique<IsobmffParser>(output, StreamRules::MediaSource);
    if (type == "video/webm" || type == "audio/webm")
        return std::make_unique<WebmParser>(output);
    return nullptr;
}

} // namespace host
