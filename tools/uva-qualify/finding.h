#ifndef UVA_QUALIFY_FINDING_H
#define UVA_QUALIFY_FINDING_H

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qualify {

enum class Verdict { Passed, Failed, NotJudged };

/// "passed", "failed", "not judged".
const char* name(Verdict verdict);

/// What was measured over time, or time after time, for a plot.
struct Series {
    std::string title;
    std::string unit; ///< of the values
    std::vector<std::pair<double, double>> points;
    std::optional<double> low, high; ///< the tolerance
    std::string over = "s";          ///< unit of what the values are measured over
};

/// A picture that was shown.
struct Evidence {
    std::string caption;
    std::string png; ///< the bytes of a file
};

/// What one check has found. A plain value.
struct Finding {
    std::string group;
    std::string check; ///< unique in its group
    std::string what;  ///< one line: what is measured
    std::string unit;
    std::optional<double> low, high; ///< the tolerance, both inclusive
    std::string source;              ///< where the tolerance comes from
    std::optional<double> measured;
    Verdict verdict = Verdict::Passed;
    std::string note; ///< what else is to be said; of what was not judged, why
    std::vector<Series> series;
    std::vector<Evidence> evidence;
};

/// "<= 1000 ms", "-120 to 40 ms", "0 pictures".
std::string toleranceOf(const Finding& finding);
/// "87.5 ms"; empty: not measured.
std::string measuredOf(const Finding& finding);
/// Without what no reader wants: "87.5", "1000", "-0.12".
std::string plainNumber(double value);

/// Pictures are told in base64. What it reads may be anybody's: throws nlohmann::json::exception.
void to_json(nlohmann::json& json, const Finding& finding);
void from_json(const nlohmann::json& json, Finding& finding);

std::string toBase64(const std::string& bytes);

} // namespace qualify

#endif
