// Feeds the files of the given folders to a fuzz target, so that its corpus is an ordinary test.

#include "fuzz_target.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

int main(int argc, char** argv) {
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ++count;
        }
    }
    printf("%zu inputs replayed\n", count);
    return count > 0 ? 0 : 1;
}
