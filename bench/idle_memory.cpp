// Prints the resident kilobytes of a process that has the C++ library and an idle thread, with or
// without the framework: the difference is what the idle framework costs.

#ifdef WITH_FRAMEWORK
#include "debug/zant_trace_core.h"
#endif

#include <cstdio>
#include <sstream>
#include <thread>
#include <unistd.h>

int main() {
#ifdef WITH_FRAMEWORK
    if (zantTrace.Init("idle_memory", 128) != 0)
        return 1;
#endif
    std::thread([] { pause(); }).detach();
    std::ostringstream stream;
    stream << "idle " << 1;
    FILE* const statm = fopen("/proc/self/statm", "r");
    long pages = 0;
    if (!statm || fscanf(statm, "%*d %ld", &pages) != 1)
        return 1;
    fclose(statm);
    printf("%ld\n", pages * (sysconf(_SC_PAGESIZE) / 1024));
    return 0;
}
