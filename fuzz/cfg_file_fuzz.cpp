// Any bytes as a configuration file: lines, keywords and items stay within their bounds. The first
// byte chooses how the data of a line is split.

#include "config/cfg_file.h"
#include "config/cfg_line.h"
#include "debug/zant_trace_core.h"
#include "util/scoped_handles.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr size_t maxLineLength = 1997;
char separator = ',';

void require(bool holds) {
    if (!holds)
        abort();
}

int splitData(char* keyword, char* data, const char*, int line, char) {
    require(line > 0);
    require(strlen(keyword) <= 63);
    const size_t length = strlen(data);
    require(length <= maxLineLength);

    CCfgLine items;
    items.SetLine(data, separator);
    std::string item;
    int number = 0;
    // Every item but an empty one at the end takes at least a character.
    for (size_t i = 0; i <= length; ++i) {
        require(items.GetNextString(&item) == 0 && item.size() <= length);
        items.GetNextInt(&number);
    }
    require(items.GetNextString(&item) == 0 && item.empty());
    return strcmp(keyword, "STOP") == 0 ? 1 : 0;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    zantTrace.SetTraceOffAll();
    if (size == 0)
        return 0;
    separator = static_cast<char>(data[0]);
    const ScopedFd file(memfd_create("cfg", MFD_CLOEXEC));
    if (!file || write(file.get(), data + 1, size - 1) != static_cast<ssize_t>(size - 1))
        abort();
    const std::string path = "/proc/self/fd/" + std::to_string(file.get());
    const int32_t result = CCfgFile().ReadCfgfileEx(path.c_str(), splitData, '#', ',');
    require(result == 0 || result == 1 || result == CCfgFile::badTermChar);
    return 0;
}
