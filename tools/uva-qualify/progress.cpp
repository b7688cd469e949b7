#include "progress.h"

#include <cstdio>
#include <unistd.h>

namespace qualify {

namespace {

/// A verdict in its colour.
std::string coloured(Verdict verdict, bool live) {
    if (!live)
        return name(verdict);
    const char* const colour = verdict == Verdict::Passed   ? "32"
                               : verdict == Verdict::Failed ? "31;1"
                                                            : "33";
    return std::string("\x1b[") + colour + "m" + name(verdict) + "\x1b[0m";
}

} // namespace

Progress::Progress() : m_live(isatty(STDOUT_FILENO) != 0) {}

void Progress::groupBegins(const Group& group) {
    if (m_live)
        std::printf("%s: %s\n", group.name, group.what);
    std::fflush(stdout);
}

void Progress::found(const Finding& finding) {
    if (!m_live && finding.verdict == Verdict::Passed)
        return;
    const auto measured = measuredOf(finding);
    const auto wanted = toleranceOf(finding);
    std::printf("  %s: %s, %s: %s%s%s\n", coloured(finding.verdict, m_live).c_str(),
                finding.group.c_str(), finding.check.c_str(),
                measured.empty() ? finding.what.c_str() : measured.c_str(),
                wanted.empty() ? "" : (" (" + wanted + ")").c_str(),
                finding.note.empty() ? "" : (" - " + finding.note).c_str());
    std::fflush(stdout);
}

void Progress::groupEnds(const GroupResult& result) {
    if (!result.error.empty())
        std::fprintf(stderr, "uva-qualify: %s: %s\n", result.name.c_str(), result.error.c_str());
}

void Progress::end(const Results& results, const std::vector<Change>& changes) {
    for (const auto& change : changes)
        std::printf("  %s: %s, %s: %s -> %s\n", name(change.kind), change.group.c_str(),
                    change.check.c_str(), change.before.c_str(), change.now.c_str());
    std::printf("%u passed, %u failed, %u not judged\n", count(results, Verdict::Passed),
                count(results, Verdict::Failed), count(results, Verdict::NotJudged));
}

} // namespace qualify
