// Prints what a process with the C++ library and an idle thread keeps in memory, with or without
// the framework: resident kilobytes, and those of them that are its own rather than of a file.

#ifdef WITH_FRAMEWORK
#include "debug/trace/zant_trace_core.h"
#endif

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

/// A line of the kernel's sums over all mappings.
long kilobytes(const std::string& name) {
    std::ifstream sums("/proc/self/smaps_rollup");
    std::string word;
    long value = -1;
    while (sums >> word)
        if (word == name)
            sums >> value;
    return value;
}

} // namespace

int main() {
#ifdef WITH_FRAMEWORK
    if (zantTrace.Init("idle_memory", 128) != 0)
        return 1;
#endif
    std::thread([] { pause(); }).detach();
    std::ostringstream stream;
    stream << "idle " << 1;
    printf("%ld %ld\n", kilobytes("Rss:"), kilobytes("Anonymous:"));
    return 0;
}
