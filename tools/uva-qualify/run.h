#ifndef UVA_QUALIFY_RUN_H
#define UVA_QUALIFY_RUN_H

#include "finding.h"
#include "groups/groups.h"
#include "options.h"
#include "stop_signals.h"

#include <functional>
#include <string>
#include <vector>

namespace qualify {

/// What became of a group.
struct GroupResult {
    std::string name;
    std::string what;
    std::string observed; ///< how pictures and sound were observed
    double seconds = 0;   ///< that it took
    std::vector<Finding> findings;
    std::string error; ///< why nothing, or not all, could be tried; empty: it was

    unsigned int count(Verdict verdict) const;
};

using Results = std::vector<GroupResult>;

unsigned int count(const Results& results, Verdict verdict);

/// Runs a group in a process of its own, which is killed when it says nothing for too long, or when
/// a signal stops the run: its error says so. A
/// process that does not come to its end is a finding that failed. `heard` is called for each
/// finding as it comes.
GroupResult runGroup(const Group& group, const Options& options, const StopSignals& stop,
                     const std::function<void(const Finding&)>& heard);

} // namespace qualify

#endif
