#include "util/mount_table.h"

#include <fstream>
#include <sstream>
#include <utility>

namespace mount_table {

namespace {

bool isOctal(char digit) {
    return digit >= '0' && digit <= '7';
}

/// ID PARENT MAJOR:MINOR ROOT FOLDER OPTIONS [TAG]... - TYPE DEVICE OPTIONS
MountEntry entryOf(const std::string& line) {
    std::istringstream words(line);
    std::vector<std::string> all;
    for (std::string word; std::getline(words, word, ' ');) // all other blanks belong to names
        all.push_back(word);
    constexpr size_t folder = 4;
    size_t dash = folder + 2;
    while (dash < all.size() && all[dash] != "-")
        ++dash;
    if (dash + 2 >= all.size())
        return {};
    return {withoutOctalEscapes(all[folder]), withoutOctalEscapes(all[dash + 2]), all[dash + 1]};
}

} // namespace

} // namespace mount_table

std::vector<MountEntry> readMounts() {
    std::vector<MountEntry> mounts;
    std::ifstream table("/proc/self/mountinfo");
    for (std::string line; std::getline(table, line);) {
        auto entry = mount_table::entryOf(line);
        if (!entry.folder.empty())
            mounts.push_back(std::move(entry));
    }
    return mounts;
}

std::string withoutOctalEscapes(const std::string& text) {
    std::string plain;
    for (size_t at = 0; at < text.size(); ++at) {
        const bool isEscape =
            text[at] == '\\' && at + 3 < text.size() && mount_table::isOctal(text[at + 1]) &&
            mount_table::isOctal(text[at + 2]) && mount_table::isOctal(text[at + 3]);
        plain +=
            isEscape ? static_cast<char>(std::stoi(text.substr(at + 1, 3), nullptr, 8)) : text[at];
        if (isEscape)
            at += 3;
    }
    return plain;
}
