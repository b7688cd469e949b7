#include "report/report.h"

#include <nlohmann/json.hpp>

namespace qualify {

std::string jsonReport(const RunFacts& facts, const Results& results) {
    nlohmann::json json = {{"format", "uva-qualify 1"},
                           {"backend", facts.backend},
                           {"profile", facts.profile},
                           {"machine", facts.host},
                           {"time", facts.time},
                           {"complete", facts.incomplete.empty()},
                           {"passed", count(results, Verdict::Passed)},
                           {"failed", count(results, Verdict::Failed)},
                           {"notJudged", count(results, Verdict::NotJudged)}};
    auto& groups = json["groups"] = nlohmann::json::array();
    for (const auto& result : results)
        groups.push_back({{"name", result.name},
                          {"what", result.what},
                          {"observed", result.observed},
                          {"seconds", result.seconds},
                          {"error", result.error},
                          {"findings", result.findings}});
    return json.dump(1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

} // namespace qualify
