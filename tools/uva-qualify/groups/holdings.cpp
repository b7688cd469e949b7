#include "groups/holdings.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <sstream>
#include <vector>

namespace qualify {

namespace {

namespace fs = std::filesystem;

template <typename Take>
void eachEntry(const fs::path& folder, Take take) {
    std::error_code error;
    for (auto it = fs::directory_iterator(folder, error); !error && it != fs::directory_iterator();
         it.increment(error))
        take(it->path().string());
}

double entriesIn(const char* folder) {
    double count = 0;
    eachEntry(folder, [&](const std::string&) { ++count; });
    return count;
}

std::set<std::string> passingFiles() {
    std::set<std::string> names;
    const auto addAll = [&](const std::string& folder) {
        eachEntry(folder, [&](const std::string& name) { names.insert(name); });
    };
    for (const char* folder : {"/tmp", "/var/tmp", "."})
        addAll(folder);
    for (const char* variable : {"TMPDIR", "HOME", "XDG_RUNTIME_DIR", "XDG_CACHE_HOME",
                                 "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME"})
        if (const char* folder = std::getenv(variable))
            addAll(folder);
    if (const char* home = std::getenv("HOME"))
        for (const char* folder : {"/.cache", "/.config", "/.local/share", "/.local/state"})
            addAll(std::string(home) + folder);
    return names;
}

/// Memory in which the allocator has its blocks, or a thread its stack, says nothing: the heap and
/// the threads are counted. An arena begins at a multiple of its largest size.
bool isOfAllocator(unsigned long long from, const std::string& name) {
    constexpr unsigned long long arena = sizeof(void*) == 8 ? 64ULL << 20U : 1ULL << 20U;
    return name == "[heap]" || (name.empty() && from % arena == 0);
}

bool isFileInMemory(const std::string& name) {
    constexpr const char* deleted = " (deleted)";
    return name.rfind("/memfd:", 0) == 0 || name.rfind("/dev/shm/", 0) == 0 ||
           name.find(deleted) != std::string::npos;
}

/// "7f0000000000-7f0000021000 rw-p 00000000 00:00 0   NAME".
struct Mapping {
    unsigned long long from = 0, to = 0;
    std::string access, name;

    bool read(const std::string& line) {
        std::istringstream words(line);
        std::string offset, device, node;
        char dash = 0;
        words >> std::hex >> from >> dash >> to >> access >> offset >> device >> node;
        if (!words || dash != '-')
            return false;
        name.clear();
        std::getline(words >> std::ws, name);
        return true;
    }
};

} // namespace

Mappings readMappings(std::istream& smaps) {
    Mappings sum;
    Mapping mapping;
    bool counts = false;
    for (std::string line; std::getline(smaps, line);) {
        if (mapping.read(line)) {
            counts = mapping.access.find('w') != std::string::npos &&
                     !isOfAllocator(mapping.from, mapping.name);
            sum.mapped += counts ? static_cast<double>(mapping.to - mapping.from) / 1024 : 0;
            sum.files += isFileInMemory(mapping.name) ? 1 : 0;
            continue;
        }
        std::istringstream words(line);
        std::string key;
        double value = 0;
        if (counts && words >> key >> value &&
            (key == "Private_Dirty:" || key == "Shared_Dirty:" || key == "Swap:"))
            sum.resident += value;
    }
    return sum;
}

Memory memoryOfProcess() {
    const auto info = mallinfo2();
    std::ifstream smaps("/proc/self/smaps");
    const auto mappings = readMappings(smaps);
    // What the allocator has mapped by itself is in both.
    const double own = static_cast<double>(info.hblkhd) / 1024;
    return {static_cast<double>(info.uordblks + info.hblkhd) / 1024, mappings.resident - own,
            mappings.mapped - own};
}

std::set<std::string> threads() {
    std::set<std::string> names;
    eachEntry("/proc/self/task", [&](const std::string& folder) {
        std::string name;
        std::getline(std::ifstream(folder + "/comm"), name);
        names.insert(fs::path(folder).filename().string() + " " + name);
    });
    return names;
}

Holdings holdings() {
    std::ifstream smaps("/proc/self/smaps");
    return {entriesIn("/proc/self/fd"), entriesIn("/dev/mqueue") + entriesIn("/dev/shm"),
            readMappings(smaps).files, threads(), passingFiles()};
}

double slopeOf(const Series& series, std::size_t from) {
    std::vector<double> slopes;
    const auto& points = series.points;
    for (std::size_t i = from; i < points.size(); ++i)
        for (std::size_t j = i + 1; j < points.size(); ++j)
            slopes.push_back((points[j].second - points[i].second) /
                             (points[j].first - points[i].first));
    if (slopes.empty())
        return 0;
    const auto middle = slopes.begin() + static_cast<std::ptrdiff_t>(slopes.size() / 2);
    std::nth_element(slopes.begin(), middle, slopes.end());
    return *middle;
}

} // namespace qualify
