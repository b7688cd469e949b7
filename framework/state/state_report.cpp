#include "state/state_report.h"

#include "util/bounded_ask.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <system_error>

namespace {

using Json = StateReport::Json;
using Answer = BoundedAsk<Json>;

Json answerOf(const StateReport::Ask& ask) {
    try {
        return ask();
    } catch (const std::exception& error) {
        return {{"error", error.what()}};
    }
}

} // namespace

struct StateReport::Section {
    const std::string name;
    const Ask ask;
    Answer answer;

    /// What went wrong; empty: it is being asked.
    std::string begin() {
        try {
            answer.begin([ask = ask] { return answerOf(ask); });
        } catch (const std::system_error& error) {
            return std::string("not asked, no thread can be started: ") + error.what();
        }
        return {};
    }
    Json end(Answer::Clock::time_point deadline) {
        if (auto told = answer.end(deadline))
            return *std::move(told);
        return {{"error", "no answer: it waits for a lock, or the machine is short of breath"},
                {"seconds", std::chrono::duration<double>(answer.openFor()).count()}};
    }
};

StateReport::StateReport() = default;
StateReport::~StateReport() = default;

StateReport& StateReport::instance() {
    static auto& report = *new StateReport;
    return report;
}

void StateReport::add(const std::string& name, Ask ask) {
    const MutexLock lock(m_mutex);
    const auto isIt = [&name](const auto& section) { return section->name == name; };
    if (std::none_of(m_sections.begin(), m_sections.end(), isIt))
        m_sections.push_back(std::shared_ptr<Section>(new Section{name, std::move(ask), {}}));
}

/// All are asked at the same time.
std::string StateReport::collect(std::chrono::milliseconds bound,
                                 const std::vector<std::string>& members) {
    const auto isAsked = [&members](const auto& section) {
        return members.empty() ||
               std::find(members.begin(), members.end(), section->name) != members.end();
    };
    std::vector<std::shared_ptr<Section>> sections;
    {
        const MutexLock lock(m_mutex);
        std::copy_if(m_sections.begin(), m_sections.end(), std::back_inserter(sections), isAsked);
    }
    const auto deadline = Answer::Clock::now() + bound;
    auto report = Json::object();
    for (const auto& section : sections)
        if (const auto failure = section->begin(); !failure.empty())
            report[section->name] = {{"error", failure}};
    for (const auto& section : sections)
        if (!report.contains(section->name))
            report[section->name] = section->end(deadline);
    constexpr int indent = 1;
    return report.dump(indent, ' ', false, Json::error_handler_t::replace) + "\n";
}
