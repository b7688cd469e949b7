#ifndef UVA_QUALIFY_WORKER_H
#define UVA_QUALIFY_WORKER_H

#include "options.h"

namespace qualify {

/// Runs one group in this process and tells each finding, a line of JSON, on the descriptor. A line
/// {"observed": TEXT} comes first. Answers the exit code.
int work(const Options& options);

} // namespace qualify

#endif
