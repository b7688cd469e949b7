#include "report/report.h"

namespace qualify {

namespace {

constexpr const char* head = R"(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><title>uva-qualify</title>
<meta name="viewport" content="width=device-width">
<style>
body { font: 15px/1.45 system-ui, sans-serif; margin: 2em auto; max-width: 62em; padding: 0 1em; color: #222; background: #fff; }
h1 { font-size: 1.5em; overflow-wrap: anywhere; } h2 { font-size: 1.15em; margin: 2em 0 .4em; }
.scroll { overflow-x: auto; }
table { border-collapse: collapse; width: 100%; }
th, td { text-align: left; vertical-align: top; padding: .3em .6em; border-bottom: 1px solid #ddd; }
td.number { white-space: nowrap; }
.passed { color: #176b2c; } .failed { color: #b00020; font-weight: bold; } .not-judged { color: #7a5a00; }
.note { color: #555; font-size: .9em; }
details { margin: .3em 0; } img { max-width: 320px; border: 1px solid #ccc; } figure { margin: .5em 0; }
.plot text { font: 11px system-ui, sans-serif; fill: #333; } .plot .area { fill: #fafafa; stroke: #ccc; }
.plot polyline { fill: none; stroke: #1f5fa8; stroke-width: 1.2; } .plot .limit { stroke: #b00020; stroke-dasharray: 4 3; }
</style></head><body>
)";

std::string classOf(Verdict verdict) {
    return verdict == Verdict::NotJudged ? "not-judged" : name(verdict);
}

std::string element(const char* tag, const std::string& text, const std::string& kind = {}) {
    return std::string("<") + tag + (kind.empty() ? "" : " class=\"" + kind + "\"") + ">" +
           escaped(text) + "</" + tag + ">";
}

std::string exhibitsOf(const Finding& finding) {
    std::string text;
    for (const auto& series : finding.series)
        text += svgOf(series);
    for (const auto& picture : finding.evidence)
        text += "<figure><img alt=\"" + escaped(picture.caption) +
                "\" src=\"data:image/png;base64," + toBase64(picture.png) + "\"><figcaption>" +
                escaped(picture.caption) + "</figcaption></figure>";
    if (text.empty())
        return text;
    const bool open = finding.verdict == Verdict::Failed;
    return std::string(open ? "<details open>" : "<details>") + "<summary>what was seen</summary>" +
           text + "</details>";
}

std::string rowOf(const Finding& finding) {
    return "<tr>" + element("td", finding.check) + "<td>" + escaped(finding.what) +
           element("div", finding.note, "note") + exhibitsOf(finding) + "</td>" +
           element("td", measuredOf(finding), "number") +
           element("td", toleranceOf(finding), "number") + element("td", finding.source, "note") +
           element("td", name(finding.verdict), classOf(finding.verdict)) + "</tr>\n";
}

std::string sectionOf(const GroupResult& result) {
    auto text =
        "<h2 id=\"" + escaped(result.name) + "\">" + escaped(result.name + ": " + result.what) +
        "</h2>\n" +
        element("p", "Observed: " + result.observed + ". " + plainNumber(result.seconds) + " s.",
                "note");
    if (!result.error.empty())
        text += element("p", result.error, "failed");
    text += "<div class=\"scroll\"><table><tr><th>check<th>what is "
            "measured<th>measured<th>wanted<th>source<th>result</tr>\n";
    for (const auto& finding : result.findings)
        text += rowOf(finding);
    return text + "</table></div>\n";
}

std::string changesTable(const std::vector<Change>& changes) {
    std::string text = "<h2>Since the baseline</h2>\n";
    if (changes.empty())
        return text + element("p", "Nothing has changed.");
    text += "<div class=\"scroll\"><table><tr><th>check<th>change<th>before<th>now</tr>\n";
    for (const auto& change : changes) {
        const bool bad = change.kind == Change::Kind::Worse || change.kind == Change::Kind::Broken;
        text += "<tr>" + element("td", change.group + ": " + change.check) +
                element("td", name(change.kind), bad ? "failed" : "") +
                element("td", change.before) + element("td", change.now) + "</tr>\n";
    }
    return text + "</table></div>\n";
}

} // namespace

std::string htmlReport(const RunFacts& facts, const Results& results,
                       const std::vector<Change>& changes) {
    std::string text = head;
    text += element("h1", "Qualification of " + facts.backend);
    text += element("p", facts.time + ", " + facts.host + ", profile " + facts.profile, "note");
    if (!facts.incomplete.empty())
        text += element("p", "Incomplete: " + facts.incomplete, "failed");
    text += "<p>";
    for (const auto verdict : {Verdict::Passed, Verdict::Failed, Verdict::NotJudged})
        text += element("span", std::to_string(count(results, verdict)) + " " + name(verdict) + " ",
                        classOf(verdict));
    text += "</p>\n";
    if (!facts.baseline.empty())
        text += changesTable(changes);
    for (const auto& result : results)
        text += sectionOf(result);
    return text + "</body></html>\n";
}

} // namespace qualify
