#include "report/report.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <fstream>
#include <limits>
#include <set>

namespace qualify {

namespace {

const Finding* find(const std::vector<Finding>& findings, const Finding& like) {
    for (const auto& finding : findings)
        if (finding.group == like.group && finding.check == like.check)
            return &finding;
    return nullptr;
}

std::string inWords(const Finding& finding) {
    const auto measured = measuredOf(finding);
    return measured.empty() ? name(finding.verdict) : measured + ", " + name(finding.verdict);
}

/// How far a value is from where the tolerance ends; negative: beyond.
std::optional<double> roomOf(const Finding& finding) {
    if (!finding.measured)
        return std::nullopt;
    double room = std::numeric_limits<double>::infinity();
    if (finding.low)
        room = std::min(room, *finding.measured - *finding.low);
    if (finding.high)
        room = std::min(room, *finding.high - *finding.measured);
    return room;
}

double toleranceWidth(const Finding& finding) {
    const double low = finding.low.value_or(0);
    return std::abs(finding.high.value_or(low) - low);
}

std::optional<Change::Kind> changeOf(const Finding& before, const Finding& now) {
    if (now.verdict == Verdict::Failed && before.verdict == Verdict::Passed)
        return Change::Kind::Broken;
    if (now.verdict == Verdict::Passed && before.verdict == Verdict::Failed)
        return Change::Kind::Fixed;
    const auto roomBefore = roomOf(before), roomNow = roomOf(now);
    constexpr double share = 0.1; // of the tolerance; less is chance
    if (!roomBefore || !roomNow || std::abs(*roomNow - *roomBefore) <= share * toleranceWidth(now))
        return std::nullopt;
    return *roomNow > *roomBefore ? Change::Kind::Better : Change::Kind::Worse;
}

} // namespace

const char* name(Change::Kind kind) {
    static constexpr std::array names = {"better", "worse", "mended", "broken", "new", "gone"};
    return names[static_cast<std::size_t>(kind)];
}

Baseline readBaseline(const std::string& path) {
    std::ifstream stream(path);
    if (!stream || stream.peek() == std::ifstream::traits_type::eof())
        return {{}, "cannot read the baseline " + path + "; name a report that --json wrote"};
    const auto json = nlohmann::json::parse(stream, nullptr, false);
    Baseline baseline;
    try {
        for (const auto& group : json.at("groups"))
            for (const auto& finding : group.at("findings"))
                baseline.findings.push_back(finding.get<Finding>());
    } catch (const nlohmann::json::exception&) {
        return {{}, path + " is no report that --json wrote; name another baseline"};
    }
    return baseline;
}

std::vector<Change> compare(const Baseline& before, const Results& now) {
    std::vector<Change> changes;
    std::set<std::string> groups;
    std::vector<Finding> all;
    for (const auto& result : now) {
        if (result.error.empty())
            groups.insert(result.name);
        for (const auto& finding : result.findings) {
            all.push_back(finding);
            const auto* old = find(before.findings, finding);
            if (old == nullptr)
                changes.push_back(
                    {Change::Kind::New, finding.group, finding.check, "", inWords(finding)});
            else if (const auto kind = changeOf(*old, finding))
                changes.push_back(
                    {*kind, finding.group, finding.check, inWords(*old), inWords(finding)});
        }
    }
    for (const auto& old : before.findings)
        if (groups.count(old.group) > 0 && find(all, old) == nullptr)
            changes.push_back({Change::Kind::Gone, old.group, old.check, inWords(old), ""});
    return changes;
}

} // namespace qualify
