// Walks a scenario by a seed: exit code 0 when all held, 1 when something broke, which is said, 2
// for a wrong command line. It stops (SIGSTOP) where it hangs. In a box; tests/chaos/run makes one.

#include "scenarios.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <unistd.h>

namespace {

constexpr struct {
    const char* name;
    void (*walk)(chaos::Random random);
} scenarios[] = {
    {"arbitration", chaos::arbitration},     {"sources", chaos::sources}, {"seeks", chaos::seeks},
    {"releases", chaos::releases},           {"feeding", chaos::feeding}, {"shell", chaos::shell},
    {"configuration", chaos::configuration}, {"starts", chaos::starts},
};

int usage() {
    std::fprintf(stderr, "usage: chaos SCENARIO SEED, with libchaos.so preloaded\nscenarios:");
    for (const auto& row : scenarios)
        std::fprintf(stderr, " %s", row.name);
    std::fprintf(stderr, "\n");
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    const auto describe = reinterpret_cast<const char* (*)()>(dlsym(RTLD_DEFAULT, "chaosDescribe"));
    if (argc != 3 || describe == nullptr)
        return usage();
    for (const auto& row : scenarios)
        if (std::strcmp(row.name, argv[1]) == 0) {
            row.walk(chaos::Random(std::strtoull(argv[2], nullptr, 10)));
            std::fprintf(stderr, "%s\n", describe());
            return 0;
        }
    return usage();
}
