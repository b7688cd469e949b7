#ifndef UVA_QUALIFY_HOLDINGS_H
#define UVA_QUALIFY_HOLDINGS_H

#include "finding.h"

#include <cstddef>
#include <iosfwd>
#include <set>
#include <string>

namespace qualify {

/// Memory of this process, kB.
struct Memory {
    double heap = 0;     ///< what is allocated: what the allocator keeps for later does not count
    double resident = 0; ///< in use, its own and outside the allocator's memory
    double mapped = 0;   ///< the same, whether it is in use or not
};
Memory memoryOfProcess();

/// What a process holds beside it.
struct Holdings {
    double descriptors = 0;
    double queues = 0;             ///< message queues and shared memory, of all processes
    double files = 0;              ///< mappings of files in memory, and of files that are deleted
    std::set<std::string> threads; ///< numbers and names
    std::set<std::string> left;    ///< what there is in the folders for what is passing
};
Holdings holdings();
std::set<std::string> threads();

/// What a list of mappings tells, as /proc/PID/smaps has it.
struct Mappings {
    double resident = 0, mapped = 0; ///< as in Memory
    double files = 0;                ///< as in Holdings
};
Mappings readMappings(std::istream& smaps);

/// By how much values grow from one to the next, of those from one index on: the median of the
/// slopes between any two, which a step at one of them does not change.
double slopeOf(const Series& series, std::size_t from);

} // namespace qualify

#endif
