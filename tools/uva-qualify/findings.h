#ifndef UVA_QUALIFY_FINDINGS_H
#define UVA_QUALIFY_FINDINGS_H

#include "finding.h"
#include "stalls.h"

#include <functional>
#include <string>

namespace qualify {

/// Where the checks of a group say what they have found. Bound to one thread.
class Findings {
public:
    using Sink = std::function<void(const Finding&)>;

    Findings(const char* group, Sink sink) : m_group(group), m_sink(std::move(sink)) {}

    /// Holds a value against its limit. What fails, but by no more than this machine itself was
    /// late meanwhile, is not judged.
    void measure(const std::string& check, double value, const std::string& note = {},
                 std::vector<Series> series = {}, std::vector<Evidence> evidence = {});
    /// It could not be measured.
    void fail(const std::string& check, const std::string& why,
              std::vector<Evidence> evidence = {});
    void notJudged(const std::string& check, const std::string& why);

    /// Forgets how late the machine has been: what is measured next begins now.
    void beginMeasuring() { m_stalls.restart(); }

private:
    Finding begin(const std::string& check) const;

    const char* const m_group;
    const Sink m_sink;
    Stalls m_stalls;
};

} // namespace qualify

#endif
