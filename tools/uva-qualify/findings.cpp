#include "findings.h"

#include "limits.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace qualify {

namespace {

std::optional<double> boundOf(double value) {
    return std::isinf(value) ? std::nullopt : std::optional(value);
}

double excessOf(const Limit& limit, double value) {
    return std::max(limit.low - value, value - limit.high);
}

/// Whether this machine was busy enough elsewhere to be the reason.
bool isExplained(const Limit& limit, double excess, const Stalls& stalls) {
    const double late = limit.excuse.isSum ? stalls.total() : stalls.worst();
    return limit.excuse.wait > 0 && excess * limit.excuse.wait <= late;
}

} // namespace

Finding Findings::begin(const std::string& check) const {
    const auto& limit = limitOf(m_group, check);
    Finding finding;
    finding.group = m_group;
    finding.check = check;
    finding.what = limit.what;
    finding.unit = limit.unit;
    finding.low = boundOf(limit.low);
    finding.high = boundOf(limit.high);
    finding.source = limit.source;
    return finding;
}

void Findings::measure(const std::string& check, double value, const std::string& note,
                       std::vector<Series> series, std::vector<Evidence> evidence) {
    const auto& limit = limitOf(m_group, check);
    auto finding = begin(check);
    finding.measured = value;
    finding.note = note;
    finding.series = std::move(series);
    finding.evidence = std::move(evidence);
    const double excess = excessOf(limit, value);
    if (!std::isfinite(value)) {
        finding.measured.reset(); // no report can hold it
        finding.note = "no finite number" + (note.empty() ? "" : "; " + note);
    }
    if (!std::isfinite(value) || excess > 0)
        finding.verdict = Verdict::Failed;
    if (std::isfinite(value) && excess > 0 && isExplained(limit, excess, m_stalls)) {
        finding.verdict = Verdict::NotJudged;
        finding.note = "this machine was busy: a thread waited for a processor up to " +
                       plainNumber(m_stalls.worst()) + " ms, and " + plainNumber(m_stalls.total()) +
                       " ms in all; run it again when nothing else does" +
                       (note.empty() ? "" : "; " + note);
    }
    m_sink(finding);
}

void Findings::fail(const std::string& check, const std::string& why,
                    std::vector<Evidence> evidence) {
    auto finding = begin(check);
    finding.verdict = Verdict::Failed;
    finding.note = why;
    finding.evidence = std::move(evidence);
    m_sink(finding);
}

void Findings::notJudged(const std::string& check, const std::string& why) {
    auto finding = begin(check);
    finding.verdict = Verdict::NotJudged;
    finding.note = why;
    m_sink(finding);
}

} // namespace qualify
