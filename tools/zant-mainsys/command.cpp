#include "command.h"

#include "messaging/queue/signal_ids.h"
#include "session.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <sstream>
#include <utility>
#include <vector>

namespace mainsys {

namespace {

using Mode = Arbiter::Mode;
using Words = std::vector<std::string>;

constexpr uint32_t mostMessages = 100000;

std::optional<int64_t> number(const std::string& text) {
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 0);
    const bool whole = !text.empty() && *end == '\0';
    constexpr int64_t most = std::numeric_limits<uint32_t>::max();
    return whole && value >= -most && value <= most ? std::optional<int64_t>(value) : std::nullopt;
}

/// A number within bounds.
template <typename Value>
bool readNumber(const std::string& text, int64_t least, int64_t most, Value& value) {
    const auto read = number(text);
    if (!read || *read < least || *read > most)
        return false;
    value = static_cast<Value>(*read);
    return true;
}

bool readTime(const std::string& text, Milliseconds& time) {
    return readNumber(text, 0, 3600 * 1000, time);
}

bool readKinds(const std::string& text, uint32_t& kinds) {
    kinds = text == "audio"   ? audioKind
            : text == "video" ? videoKind
            : text == "both"  ? audioKind | videoKind
                              : 0;
    return kinds != 0;
}

/// A number, or a name as the list of signals has it, or its end.
bool readSignal(const std::string& text, uint32_t& signal, Arguments& arguments) {
    if (const auto value = number(text)) {
        signal = static_cast<uint32_t>(*value);
        return true;
    }
    for (uint32_t id = 1; id < nrOfSignalIds; ++id) {
        const std::string name = GetSignalIdNamePtr(static_cast<SignalIds>(id));
        if (name == text || name == "SIG_ID_" + text || name == "SIG_ID_MPLAYER_" + text) {
            signal = id;
            return true;
        }
    }
    arguments.unknownSignal = text;
    return false;
}

// Each fills in what the words behind a command's name say. False when they do not fit.

bool noWords(const Words& words, Arguments&) {
    return words.empty();
}

bool oneKind(const Words& words, Arguments& arguments) {
    return words.size() == 1 && readKinds(words[0], arguments.kinds);
}

bool perhapsAKind(const Words& words, Arguments& arguments) {
    return words.empty() || oneKind(words, arguments);
}

bool oneTime(const Words& words, Arguments& arguments) {
    return words.size() == 1 && readTime(words[0], arguments.time);
}

bool oneCount(const Words& words, Arguments& arguments) {
    return words.size() == 1 && readNumber(words[0], 1, mostMessages, arguments.count);
}

bool anyText(const Words& words, Arguments& arguments) {
    for (const std::string& word : words)
        arguments.text += (arguments.text.empty() ? "" : " ") + word;
    return !words.empty();
}

bool expectation(const Words& words, Arguments& arguments) {
    Words rest = words;
    Expectation& expected = arguments.expectation.emplace();
    if (!rest.empty() && rest.front() == "no") {
        expected.toCome = false;
        rest.erase(rest.begin());
    }
    if (rest.size() == 4) {
        const auto parameter = number(rest[1]);
        if (!parameter)
            return false;
        expected.parameter = static_cast<int32_t>(*parameter);
        rest.erase(rest.begin() + 1);
    }
    return rest.size() == 3 && rest[1] == "within" && readTime(rest[2], arguments.time) &&
           readSignal(rest[0], expected.signal, arguments);
}

bool rawBody(const Words& words, Arguments& arguments) {
    ZantMsgBody& body = arguments.body;
    const std::pair<const char*, void*> fields[] = {
        {"param1=", &body.param1},    {"size=", &body.signalSize},    {"address=", &body.signalPtr},
        {"object=", &body.signalObj}, {"control=", &body.rpcControl}, {"count=", &arguments.count}};
    if (words.empty() || !readSignal(words[0], body.signalId, arguments))
        return false;
    for (size_t i = 1; i < words.size(); ++i) {
        const auto value = words[i].find('=') + 1;
        const auto field =
            std::find_if(std::begin(fields), std::end(fields),
                         [&](const auto& each) { return words[i].substr(0, value) == each.first; });
        const auto read = number(words[i].substr(value));
        if (field == std::end(fields) || !read)
            return false;
        *static_cast<uint32_t*>(field->second) = static_cast<uint32_t>(*read);
    }
    return arguments.count >= 1 && arguments.count <= mostMessages;
}

constexpr struct {
    const char* name;
    const char* words;
    const char* help;
    bool (*read)(const Words&, Arguments&);
    void (*obey)(Session&, const Arguments&);
} rows[] = {
    {"grant", "[audio|video|both]",
     "grant what is asked for from now on, and what waits; with a kind: grant it now, asked or "
     "not",
     perhapsAKind, [](Session& session, const Arguments& it) { session.grant(it.kinds); }},
    {"refuse", "", "refuse from now on, and what waits", noWords,
     [](Session& session, const Arguments&) { session.setMode(Mode::Refuse); }},
    {"ignore", "", "leave requests waiting from now on", noWords,
     [](Session& session, const Arguments&) { session.setMode(Mode::Ignore); }},
    {"delay", "MS", "answer so much later from now on", oneTime,
     [](Session& session, const Arguments& it) { session.setDelay(it.time); }},
    {"release", "audio|video|both", "ask decoders back", oneKind,
     [](Session& session, const Arguments& it) { session.askBack(it.kinds); }},
    {"control", "TEXT", "send a control request, such as output-ddp:1", anyText,
     [](Session& session, const Arguments& it) { session.control(it.text); }},
    {"crash", "", "die at once, by SIGKILL: queue and shared memory stay as they are", noWords,
     [](Session& session, const Arguments&) { session.crash(); }},
    {"restart", "", "start anew: queue made anew, sequence number 1, all decoders free", noWords,
     [](Session& session, const Arguments&) { session.restart(); }},
    {"lend", "audio|video|both",
     "give it to another application, asking it back from the plug-in: requests wait", oneKind,
     [](Session& session, const Arguments& it) { session.lend(it.kinds); }},
    {"take", "audio|video|both", "the other application has given it back", oneKind,
     [](Session& session, const Arguments& it) { session.takeBack(it.kinds); }},
    {"expect", "[no] SIGNAL [PARAM1] within MS",
     "wait for a signal since the last one expected (or that none comes); else fail", expectation,
     [](Session& session, const Arguments& it) { session.hold(it.time, it.expectation); }},
    {"wait", "MS", "go on later", oneTime,
     [](Session& session, const Arguments& it) { session.hold(it.time, std::nullopt); }},
    {"raw", "SIGNAL [param1=|size=|address=|object=|control=|count=N]...",
     "put a body into the queue as it is", rawBody,
     [](Session& session, const Arguments& it) { session.sendRaw(it.body, it.count); }},
    {"garbage", "COUNT", "put bodies of random bytes into the queue", oneCount,
     [](Session& session, const Arguments& it) { session.sendGarbage(it.count); }},
    {"status", "", "print who has what", noWords,
     [](Session& session, const Arguments&) { session.printStatus(); }},
    {"help", "", "print this", noWords,
     [](Session&, const Arguments&) { fputs(commandHelp().c_str(), stdout); }},
    {"quit", "", "end", noWords, [](Session& session, const Arguments&) { session.quit(); }},
};

} // namespace

Command parseCommand(const std::string& line) {
    std::istringstream stream(line.substr(0, line.find('#')));
    Words words{std::istream_iterator<std::string>(stream), {}};
    if (words.empty())
        return {};
    const std::string name = words.front();
    words.erase(words.begin());
    for (const auto& row : rows) {
        if (name != row.name)
            continue;
        Command command{row.obey, {}, {}};
        const std::string& unknown = command.arguments.unknownSignal;
        if (!row.read(words, command.arguments))
            command.error = unknown.empty()
                                ? "write '" + name + (*row.words ? " " : "") + row.words + "'"
                                : "'" + unknown +
                                      "' is no signal; take a name from the log, such as "
                                      "DECODER_NEEDED_IND, or a number";
        return command;
    }
    return {nullptr, {}, "'" + name + "' is no command; 'help' lists them"};
}

std::string commandHelp() {
    std::string text;
    for (const auto& row : rows)
        text += "  " + std::string(row.name) + (*row.words ? " " : "") + row.words + "\n      " +
                row.help + "\n";
    return text;
}

} // namespace mainsys
