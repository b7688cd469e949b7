#ifndef UVA_QUALIFY_REPORT_H
#define UVA_QUALIFY_REPORT_H

#include "run.h"

#include <optional>
#include <string>
#include <vector>

namespace qualify {

/// What is known of a run beside its findings.
struct RunFacts {
    std::string backend; ///< as it was named
    std::string profile;
    std::string host;       ///< the machine
    std::string time;       ///< ISO 8601, of its beginning
    std::string baseline;   ///< the report that it is compared with; empty: none
    std::string incomplete; ///< why not all groups came to their end; empty: they did
};

// The bytes of report files.

std::string jsonReport(const RunFacts& facts, const Results& results);
std::string junitReport(const RunFacts& facts, const Results& results);

/// How a finding stands to that of an earlier run.
struct Change {
    enum class Kind { Better, Worse, Fixed, Broken, New, Gone };
    Kind kind = Kind::New;
    std::string group, check;
    std::string before, now; ///< in words
};
const char* name(Change::Kind kind);

std::string htmlReport(const RunFacts& facts, const Results& results,
                       const std::vector<Change>& changes);

/// The findings of a JSON report. Nothing when it is none: see `error`.
struct Baseline {
    std::vector<Finding> findings;
    std::string error;
};
Baseline readBaseline(const std::string& path);

/// In the order of the results, then what is gone. A value has changed when it is nearer to its
/// limit, or further from it, by a tenth of the tolerance at least. Of groups that did not run
/// to their end nothing is said to be gone.
std::vector<Change> compare(const Baseline& before, const Results& now);

/// A plot of a series.
std::string svgOf(const Series& series);

/// For text in XML and HTML; what they cannot hold is left out.
std::string escaped(const std::string& text);

} // namespace qualify

#endif
