#ifndef UVA_QUALIFY_PROGRESS_H
#define UVA_QUALIFY_PROGRESS_H

#include "report/report.h"

#include <string>

namespace qualify {

/// What a run says while it lasts. On a terminal each finding, and which group is under way; in a
/// pipe what failed, and the end. Bound to one thread.
class Progress {
public:
    Progress();

    void groupBegins(const Group& group);
    void found(const Finding& finding);
    void groupEnds(const GroupResult& result);
    void end(const Results& results, const std::vector<Change>& changes);

private:
    const bool m_live; ///< standard output is a terminal
};

} // namespace qualify

#endif
