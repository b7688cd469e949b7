#include "debug/shell/mshell_entry.h"

#include "debug/trace/zant_trace.h"

#include <algorithm>
#include <cctype>

namespace {

char toUpperForTransform(unsigned char character) {
    return static_cast<char>(toupper(character));
}

bool comesFirst(std::string left, std::string right) {
    std::transform(left.begin(), left.end(), left.begin(), toUpperForTransform);
    std::transform(right.begin(), right.end(), right.begin(), toUpperForTransform);
    return left < right;
}

const char* textOrEmpty(const char* text) {
    return text ? text : "";
}

} // namespace

CMshellEntry::CMshellEntry(int32_t parameters, const char* commandName, const char* groupName,
                           const char* helpText, T_MshellHandler run, T_MshellHandler end)
    : paramCount(parameters), name(textOrEmpty(commandName)), group(textOrEmpty(groupName)),
      help(textOrEmpty(helpText)), handler(run), deinit(end) {}

void CMshellEntry::PrintShortHelp() const {
    FormattedStringToStdout("%s\n", help.c_str());
}

bool CMshellEntry::MshellEntryNameSortPredicate(const CMshellEntry* left,
                                                const CMshellEntry* right) {
    return comesFirst(left->name, right->name);
}

bool CMshellEntry::MshellEntryGroupSortPredicate(const CMshellEntry* left,
                                                 const CMshellEntry* right) {
    return comesFirst(left->group, right->group);
}
