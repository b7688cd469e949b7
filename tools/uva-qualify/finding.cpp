#include "finding.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace qualify {

namespace {

constexpr std::array verdictNames = {"passed", "failed", "not judged"};
constexpr const char* digits64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string fromBase64(const std::string& text) {
    static const std::string alphabet = digits64;
    std::string bytes;
    unsigned int bits = 0;
    int count = 0;
    for (const char c : text) {
        const auto value = alphabet.find(c);
        if (value == std::string::npos)
            break;
        bits = bits << 6U | static_cast<unsigned int>(value);
        count += 6;
        if (count < 8)
            continue;
        count -= 8;
        bytes += static_cast<char>(bits >> static_cast<unsigned int>(count) & 0xffU);
    }
    return bytes;
}

void put(nlohmann::json& json, const char* key, const std::optional<double>& value) {
    json[key] = value ? nlohmann::json(*value) : nlohmann::json();
}

std::optional<double> take(const nlohmann::json& json, const char* key) {
    const auto& value = json.at(key);
    return value.is_null() ? std::nullopt : std::optional(value.get<double>());
}

Verdict parseVerdict(const std::string& text) {
    for (std::size_t i = 0; i < verdictNames.size(); ++i)
        if (text == verdictNames[i])
            return static_cast<Verdict>(i);
    return Verdict::NotJudged;
}

} // namespace

const char* name(Verdict verdict) {
    return verdictNames[static_cast<std::size_t>(verdict)];
}

std::string plainNumber(double value) {
    char text[40];
    std::snprintf(text, sizeof text, std::abs(value) >= 100 ? "%.0f" : "%.4g", value);
    return text;
}

std::string toleranceOf(const Finding& finding) {
    const auto& [low, high] = std::pair(finding.low, finding.high);
    std::string text;
    if (low && high)
        text = *low == *high ? plainNumber(*low) : plainNumber(*low) + " to " + plainNumber(*high);
    else if (high)
        text = "<= " + plainNumber(*high);
    else if (low)
        text = ">= " + plainNumber(*low);
    return text.empty() ? text : text + " " + finding.unit;
}

std::string measuredOf(const Finding& finding) {
    return finding.measured ? plainNumber(*finding.measured) + " " + finding.unit : "";
}

std::string toBase64(const std::string& bytes) {
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        unsigned int group = 0;
        const auto length = std::min<std::size_t>(3, bytes.size() - at);
        for (std::size_t i = 0; i < 3; ++i)
            group = group << 8U | (i < length ? static_cast<unsigned char>(bytes[at + i]) : 0U);
        for (std::size_t i = 0; i < 4; ++i)
            text += i <= length ? digits64[group >> (18U - 6U * i) & 63U] : '=';
    }
    return text;
}

void to_json(nlohmann::json& json, const Finding& finding) {
    json = {{"group", finding.group},   {"check", finding.check},
            {"what", finding.what},     {"unit", finding.unit},
            {"source", finding.source}, {"verdict", name(finding.verdict)},
            {"note", finding.note}};
    put(json, "low", finding.low);
    put(json, "high", finding.high);
    put(json, "measured", finding.measured);
    auto& series = json["series"] = nlohmann::json::array();
    for (const auto& each : finding.series) {
        nlohmann::json entry = {{"title", each.title},
                                {"unit", each.unit},
                                {"over", each.over},
                                {"points", each.points}};
        put(entry, "low", each.low);
        put(entry, "high", each.high);
        series.push_back(std::move(entry));
    }
    auto& evidence = json["pictures"] = nlohmann::json::array();
    for (const auto& each : finding.evidence)
        evidence.push_back({{"caption", each.caption}, {"png", toBase64(each.png)}});
}

void from_json(const nlohmann::json& json, Finding& finding) {
    for (const auto& [key, text] : {std::pair{"group", &finding.group},
                                    {"check", &finding.check},
                                    {"what", &finding.what},
                                    {"unit", &finding.unit},
                                    {"source", &finding.source},
                                    {"note", &finding.note}})
        *text = json.at(key).get<std::string>();
    finding.verdict = parseVerdict(json.at("verdict").get<std::string>());
    finding.low = take(json, "low");
    finding.high = take(json, "high");
    finding.measured = take(json, "measured");
    for (const auto& entry : json.at("series"))
        finding.series.push_back(
            {entry.at("title").get<std::string>(), entry.at("unit").get<std::string>(),
             entry.at("points").get<std::vector<std::pair<double, double>>>(), take(entry, "low"),
             take(entry, "high"), entry.at("over").get<std::string>()});
    for (const auto& entry : json.at("pictures"))
        finding.evidence.push_back({entry.at("caption").get<std::string>(),
                                    fromBase64(entry.at("png").get<std::string>())});
}

} // namespace qualify
