#include "player.h"

#include <cmath>
#include <cstdio>
#include <set>
#include <string_view>

namespace scope {

namespace {

constexpr std::size_t longestLine = 4096; // bytes

const char* nameOf(Player::Status status) {
    static constexpr const char* names[] = {"waiting", "answers", "silent", "ended"};
    return names[static_cast<std::size_t>(status)];
}

/// A trace of what the player is asked ten times a second.
bool isOwnQuestion(std::string_view line) {
    return line.find("cmd: m_state ") != std::string_view::npos &&
           line.find("/uva-scope-") != std::string_view::npos;
}

std::string sourceState(const Json& source) {
    return numberIn(source, "waits_for_data_seconds") ? "waits for data" : textIn(source, "state");
}

/// The decoders of a kind: who is asked, or who has it.
std::string decoderState(const Json& backend, const Json& link, const char* kind, unsigned bit) {
    for (const auto& wait : listIn(backend, "decoder_requests"))
        if (textIn(wait, "kind") == kind)
            return "waits for " + textIn(wait, "waits_for");
    const auto holds = [&](const char* mask) {
        const auto value = numberIn(link, mask).value_or(0);
        return value > 0 && value < 256 && (static_cast<unsigned>(value) & bit) != 0;
    };
    return holds("asked_back") ? "asked back" : holds("used") ? "in use" : "free";
}

} // namespace

void Player::take(const Json& message, double time) {
    m_heard = time;
    const auto kind = textIn(message, "kind");
    if (kind == "state")
        takeState(message, time);
    else if (kind == "silent")
        setStatus(member(message, "ended") == true ? Status::Ended
                  : m_status == Status::Waiting    ? Status::Waiting
                  : m_status == Status::Ended      ? Status::Ended
                                                   : Status::Silent,
                  textIn(message, "reason"), time);
    else if (kind == "traces")
        takeLines(message, "trace", time);
    else if (kind == "log")
        takeLines(message, "log", time);
    else if (kind == "note")
        m_note = textIn(message, "text");
}

void Player::lost(const std::string& reason, double time) {
    setStatus(m_status == Status::Waiting ? Status::Waiting : Status::Ended, reason, time);
}

void Player::checkHeard(double time, double longest) {
    if (m_status != Status::Answers || time - m_heard <= longest)
        return;
    setStatus(Status::Silent, "nothing comes any more; its shell may be busy with a long command",
              time);
}

void Player::setStatus(Status status, const std::string& reason, double time) {
    if (status != m_status) {
        m_since = time;
        m_timeline.add({time, "process", nameOf(status), reason});
    }
    m_status = status;
    m_reason = reason;
}

void Player::takeState(const Json& message, double time) {
    const auto text = textIn(message, "state");
    auto state = parseForeign(text);
    if (!state || !state->is_object())
        return setStatus(Status::Silent, "what the player wrote is no state that can be read",
                         time);
    const double process = numberIn(message, "process").value_or(0);
    if (process != m_process) {
        m_backends.clear();
        m_state = Json::object();
        m_note.clear();
        m_timeline.add({time, "process", "process " + std::to_string(std::lround(process)), ""});
    }
    m_process = process;
    if (!m_state.is_object())
        m_state = Json::object();
    m_state.update(*state);
    m_mainSystem = parseForeign(textIn(message, "main_system")).value_or(Json());
    setStatus(Status::Answers, "", time);

    const auto& media = member(m_state, "media");
    std::set<std::string> seen;
    for (const auto& backend : listIn(media, "backends")) {
        seen.insert(textIn(backend, "address"));
        takeBackend(backend, member(media, "decoder_link"), time);
    }
    for (auto each = m_backends.begin(); each != m_backends.end();)
        each = seen.count(each->first) > 0 ? std::next(each) : m_backends.erase(each);
}

void Player::takeBackend(const Json& state, const Json& link, double time) {
    const auto address = textIn(state, "address");
    const auto found = m_backends.find(address);
    const auto before =
        found == m_backends.end() ? std::nullopt : std::optional(found->second.standing);
    auto& backend = m_backends[address];
    backend.standing = follow(before, state, time);
    backend.why = explain(backend.standing, {state, link, m_mainSystem}, time);
    show(backend, "wanted", textIn(state, "state"), time);
    show(backend, "pipeline", textIn(member(state, "pipeline"), "state"), time);
    for (const auto& source : listIn(state, "sources"))
        show(backend, textIn(source, "name"), sourceState(source), time);
    show(backend, "video decoder", decoderState(state, link, "video", 2), time);
    show(backend, "audio decoder", decoderState(state, link, "audio", 1), time);
    const std::string who = scope::nameOf(backend.why.who);
    show(backend, "waits for", who.empty() ? "–" : who, time, backend.why.sentence);
    takeEvents(backend, state, time);
}

void Player::takeEvents(Backend& backend, const Json& state, double time) {
    for (const auto& event : listIn(state, "events")) {
        const double number = numberIn(event, "number").value_or(0);
        if (number <= backend.lastEvent)
            continue;
        backend.lastEvent = number;
        m_timeline.add({time - numberIn(event, "seconds_ago").value_or(0), "events",
                        textIn(event, "name"), ""});
    }
}

void Player::show(Backend& backend, const std::string& track, const std::string& name, double time,
                  const std::string& detail) {
    constexpr std::size_t mostTracks = 64; // of a player that tells nonsense
    if (track.empty() || name.empty() ||
        (backend.shows.size() >= mostTracks && backend.shows.count(track) == 0))
        return;
    auto& shown = backend.shows[track];
    if (shown == name)
        return;
    shown = name;
    m_timeline.add({time, track, name, detail});
}

void Player::takeLines(const Json& message, const char* source, double time) {
    auto& rest = m_partial[source];
    rest += textIn(message, "text");
    std::size_t begin = 0;
    for (auto end = rest.find('\n'); end != std::string::npos; end = rest.find('\n', begin)) {
        const auto line = std::string_view(rest).substr(begin, end - begin);
        if (!isOwnQuestion(line))
            m_lines.add({time, source, std::string(line.substr(0, longestLine))});
        begin = end + 1;
    }
    rest.erase(0, begin);
    if (rest.size() > longestLine)
        m_lines.add({time, source, std::exchange(rest, {})});
}

Json Player::describeBackends() const {
    auto list = Json::array();
    if (m_status != Status::Answers)
        return list; // nobody knows
    for (const auto& [address, backend] : m_backends)
        list.push_back({{"address", address},
                        {"waits_for", scope::nameOf(backend.why.who)},
                        {"seconds", backend.why.seconds},
                        {"sentence", backend.why.sentence}});
    return list;
}

Json Player::describe() const {
    return {{"id", m_id},
            {"box", m_box},
            {"status", nameOf(m_status)},
            {"reason", m_reason},
            {"since", m_since},
            {"note", m_note},
            {"state", m_state},
            {"why", describeBackends()},
            {"main_system", m_mainSystem}};
}

} // namespace scope
