#include "report/report.h"

#include <algorithm>

namespace qualify {

namespace {

std::string attribute(const char* name, const std::string& value) {
    return std::string(" ") + name + "=\"" + escaped(value) + "\"";
}

std::string caseOf(const Finding& finding) {
    const auto said = measuredOf(finding) + ", wanted " + toleranceOf(finding) +
                      (finding.note.empty() ? "" : "; " + finding.note);
    auto text = "    <testcase" + attribute("classname", "uva-qualify." + finding.group) +
                attribute("name", finding.check);
    switch (finding.verdict) {
    case Verdict::Passed:
        return text + "><system-out>" + escaped(finding.what + ": " + said) +
               "</system-out></testcase>\n";
    case Verdict::Failed:
        return text + "><failure" + attribute("message", finding.what + ": " + said) +
               "/></testcase>\n";
    case Verdict::NotJudged:
        break;
    }
    return text + "><skipped" + attribute("message", "not judged: " + finding.note) +
           "/></testcase>\n";
}

std::string suiteOf(const RunFacts& facts, const GroupResult& result) {
    const auto number = [](unsigned int value) { return std::to_string(value); };
    const bool broken = !result.error.empty();
    auto text = "  <testsuite" + attribute("name", result.name) +
                attribute("timestamp", facts.time) +
                attribute("time", plainNumber(result.seconds)) +
                attribute("tests", std::to_string(result.findings.size() + (broken ? 1 : 0))) +
                attribute("failures", number(result.count(Verdict::Failed))) +
                attribute("errors", broken ? "1" : "0") +
                attribute("skipped", number(result.count(Verdict::NotJudged))) + ">\n";
    for (const auto& finding : result.findings)
        text += caseOf(finding);
    if (broken)
        text += "    <testcase" + attribute("classname", "uva-qualify." + result.name) +
                attribute("name", "begin") + "><error" + attribute("message", result.error) +
                "/></testcase>\n";
    return text + "  </testsuite>\n";
}

/// Control characters are no XML, and bytes that are no UTF-8 neither.
bool isPlain(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte >= 0x20 && byte < 0x7f) || c == '\n' || c == '\t';
}

} // namespace

std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : text) {
        switch (c) {
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '&':
            result += "&amp;";
            break;
        case '"':
            result += "&quot;";
            break;
        default:
            if (isPlain(c))
                result += c;
        }
    }
    return result;
}

std::string junitReport(const RunFacts& facts, const Results& results) {
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites>\n";
    for (const auto& result : results)
        text += suiteOf(facts, result);
    return text + "</testsuites>\n";
}

} // namespace qualify
