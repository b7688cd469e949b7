#include "transcript.h"

#include <algorithm>
#include <cstdio>
#include <random>
#include <regex>
#include <utility>

namespace zantsh {

namespace {

constexpr std::string_view markPrefix = "zantsh.mark.";
constexpr std::size_t nameSize = 16;
constexpr std::string_view beginSuffix = ".begin";
constexpr std::string_view endSuffix = ".end";

constexpr std::string_view traceOfCommand = "Processing cmd: m_echo ";
constexpr std::string_view traceOfAck = "Sending Ack/Nack successful\n";
constexpr std::string_view traceOfSkip = "MshellReadFromSocket() - FAILED\n";

std::string newName() {
    std::random_device source;
    char name[nameSize + 1];
    std::snprintf(name, sizeof name, "%08x%08x", source(), source());
    return name;
}

bool endsWith(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

/// Where a line's trace begins: its time if it has one, its number, its thread.
std::size_t startOfTrace(const std::string& line) {
    static const std::regex form(
        R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )?\[\d{5,}\] [0-9a-f]+ )");
    std::smatch found;
    return std::regex_search(line, found, form) ? static_cast<std::size_t>(found.position())
                                                : std::string::npos;
}

/// The mark in a line, empty if it has none.
std::string_view markIn(std::string_view line) {
    const auto at = line.find(markPrefix);
    if (at == std::string_view::npos)
        return {};
    const auto mark = line.substr(at, line.find_last_not_of('\n') + 1 - at);
    const auto suffix = mark.substr(std::min(mark.size(), markPrefix.size() + nameSize));
    return suffix == beginSuffix || suffix == endSuffix ? mark : std::string_view();
}

} // namespace

Marks::Marks() : Marks(newName()) {}

Marks::Marks(const std::string& name)
    : begin(std::string(markPrefix) + name + std::string(beginSuffix)),
      end(std::string(markPrefix) + name + std::string(endSuffix)) {}

void Transcript::expect(const Marks& marks) {
    m_begin = marks.begin;
    m_end = marks.end;
    m_begun = m_ended = false;
}

std::string Transcript::take(std::string_view printed) {
    std::string shown;
    while (!printed.empty()) {
        const auto end = std::min(printed.find('\n'), printed.size() - 1) + 1;
        m_line += printed.substr(0, end);
        printed.remove_prefix(end);
        if (m_line.back() == '\n')
            shown += takeLine(std::exchange(m_line, {}));
    }
    return shown;
}

std::string Transcript::flush() {
    return isShown(m_line) ? std::exchange(m_line, {}) : std::string();
}

/// Something may have been printed before a mark or a trace without ending its line.
std::string Transcript::takeLine(const std::string& line) {
    if (const auto mark = markIn(line); !mark.empty()) {
        const bool traced = line.find(traceOfCommand) != std::string::npos;
        const auto before = line.substr(0, traced ? startOfTrace(line) : line.find(mark));
        const auto shown = isShown(before) ? before : std::string();
        if (!traced)
            pass(mark);
        return shown;
    }
    return isTraceOfProbe(line) || !isShown(line) ? std::string() : line;
}

void Transcript::pass(std::string_view mark) {
    m_ackDue = true;
    m_skipDue = m_skipDue && mark != m_begin;
    m_begun = m_begun || mark == m_begin;
    m_ended = m_ended || mark == m_end;
    m_whose = endsWith(mark, endSuffix) ? Whose::nobody
              : mark == m_begin         ? Whose::own
                                        : Whose::foreign;
}

/// Each probe causes one of them at most.
bool Transcript::isTraceOfProbe(std::string_view line) {
    if (endsWith(line, traceOfAck))
        return std::exchange(m_ackDue, false);
    return endsWith(line, traceOfSkip) && std::exchange(m_skipDue, false);
}

bool Transcript::isShown(std::string_view line) const {
    if (m_scope == Scope::commands)
        return m_whose == Whose::own;
    return m_whose != Whose::foreign || startOfTrace(std::string(line)) == 0;
}

} // namespace zantsh
