#ifndef UVA_REPLAY_MINIMIZE_H
#define UVA_REPLAY_MINIMIZE_H

#include "compare.h"
#include "record.h"

#include <cstddef>
#include <functional>
#include <vector>

namespace replay {

struct Try {
    std::size_t number; ///< from 1
    std::size_t left;   ///< calls, of
    std::size_t all;
};

/// Leaves out of a record what its failure does not need: calls, each with the events that it
/// causes and their answers, as long as `fails` says of what is left that it fails in the same way.
/// The bytes of the shortest record that was found.
std::vector<char> minimize(const record::Record& record,
                           const std::function<bool(const record::Record& shorter)>& fails,
                           const std::function<void(const Try& attempt)>& progress);

} // namespace replay

#endif
