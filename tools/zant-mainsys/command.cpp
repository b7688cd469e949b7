#include "command.h"

#include "arbiter.h"
#include "messaging/queue/signal_ids.h"

#include <cstdlib>
#include <limits>
#include <sstream>
#include <vector>

namespace mainsys {

namespace {

using Verb = Command::Verb;
using Words = std::vector<std::string>;

constexpr uint32_t mostMessages = 100000;
constexpr int64_t longestTime = 3600 * 1000;

/// Fills the command from the words after the verb. False when they do not fit.
using Reader = bool (*)(const Words&, Command&);

std::optional<int64_t> number(const std::string& text) {
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 0);
    const bool whole = !text.empty() && *end == '\0';
    constexpr int64_t most = std::numeric_limits<uint32_t>::max();
    return whole && value >= -most && value <= most ? std::optional<int64_t>(value) : std::nullopt;
}

bool readTime(const std::string& text, Milliseconds& time) {
    const auto value = number(text);
    if (!value || *value < 0 || *value > longestTime)
        return false;
    time = Milliseconds(*value);
    return true;
}

bool readKinds(const std::string& text, uint32_t& kinds) {
    kinds = text == "audio"   ? audioKind
            : text == "video" ? videoKind
            : text == "both"  ? audioKind | videoKind
                              : 0;
    return kinds != 0;
}

/// A number, or a name as the list of signals has it, or its end.
bool readSignal(const std::string& text, uint32_t& signal) {
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
    return false;
}

bool readCount(const std::string& text, uint32_t& count) {
    const auto value = number(text);
    if (!value || *value < 1 || *value > mostMessages)
        return false;
    count = static_cast<uint32_t>(*value);
    return true;
}

bool noWords(const Words& words, Command&) {
    return words.empty();
}

bool grant(const Words& words, Command& command) {
    return words.empty() || (words.size() == 1 && readKinds(words[0], command.kinds));
}

bool oneKind(const Words& words, Command& command) {
    return words.size() == 1 && readKinds(words[0], command.kinds);
}

bool oneTime(const Words& words, Command& command) {
    return words.size() == 1 && readTime(words[0], command.time);
}

bool oneCount(const Words& words, Command& command) {
    return words.size() == 1 && readCount(words[0], command.count);
}

bool controlText(const Words& words, Command& command) {
    for (const std::string& word : words)
        command.text += (command.text.empty() ? "" : " ") + word;
    return !words.empty();
}

bool expectation(const Words& words, Command& command) {
    Words rest = words;
    if (!rest.empty() && rest.front() == "no") {
        command.verb = Verb::ExpectNone;
        rest.erase(rest.begin());
    }
    if (rest.size() == 4) {
        const auto parameter = number(rest[1]);
        if (!parameter)
            return false;
        command.parameter = static_cast<int32_t>(*parameter);
        rest.erase(rest.begin() + 1);
    }
    return rest.size() == 3 && readSignal(rest[0], command.signal) && rest[1] == "within" &&
           readTime(rest[2], command.time);
}

bool rawBody(const Words& words, Command& command) {
    struct {
        const char* name;
        void* word;
    } const fields[] = {{"param1", &command.body.param1},      {"size", &command.body.signalSize},
                        {"address", &command.body.signalPtr},  {"object", &command.body.signalObj},
                        {"control", &command.body.rpcControl}, {"count", &command.count}};
    if (words.empty() || !readSignal(words[0], command.body.signalId))
        return false;
    for (size_t i = 1; i < words.size(); ++i) {
        const auto equals = words[i].find('=');
        const auto value =
            equals == std::string::npos ? std::nullopt : number(words[i].substr(equals + 1));
        void* target = nullptr;
        for (const auto& field : fields)
            if (words[i].substr(0, equals) == field.name)
                target = field.word;
        if (!value || !target)
            return false;
        *static_cast<uint32_t*>(target) = static_cast<uint32_t>(*value);
    }
    return command.count >= 1 && command.count <= mostMessages;
}

struct Row {
    const char* name;
    Verb verb;
    Reader read;
    const char* words;
    const char* help;
};

constexpr Row rows[] = {
    {"grant", Verb::Grant, grant, "[audio|video|both]",
     "grant what is asked for from now on, and what waits; with a kind: grant it now, asked or "
     "not"},
    {"refuse", Verb::Refuse, noWords, "", "refuse from now on, and what waits"},
    {"ignore", Verb::Ignore, noWords, "", "leave requests waiting from now on"},
    {"delay", Verb::Delay, oneTime, "MS", "answer so much later from now on"},
    {"release", Verb::Release, oneKind, "audio|video|both", "ask decoders back"},
    {"control", Verb::Control, controlText, "TEXT", "send a control request, such as output-ddp:1"},
    {"crash", Verb::Crash, noWords, "",
     "die at once, by SIGKILL: queue and shared memory stay as they are"},
    {"restart", Verb::Restart, noWords, "",
     "start anew: queue made anew, sequence number 1, all decoders free"},
    {"expect", Verb::Expect, expectation, "[no] SIGNAL [PARAM1] within MS",
     "wait for a signal since the last one expected (or that none comes); else fail"},
    {"wait", Verb::Wait, oneTime, "MS", "go on later"},
    {"raw", Verb::Raw, rawBody, "SIGNAL [param1=|size=|address=|object=|control=|count=N]...",
     "put a body into the queue as it is"},
    {"garbage", Verb::Garbage, oneCount, "COUNT", "put bodies of random bytes into the queue"},
    {"status", Verb::Status, noWords, "", "print who has what"},
    {"help", Verb::Help, noWords, "", "print this"},
    {"quit", Verb::Quit, noWords, "", "end"},
};

} // namespace

ParsedCommand parseCommand(const std::string& line) {
    std::istringstream stream(line.substr(0, line.find('#')));
    Words words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    Command command;
    if (words.empty())
        return {command, {}};
    const std::string name = words.front();
    words.erase(words.begin());
    for (const Row& row : rows) {
        if (name != row.name)
            continue;
        command.verb = row.verb;
        if (row.read(words, command))
            return {command, {}};
        return {std::nullopt, "write '" + name + (*row.words ? " " : "") + row.words + "'"};
    }
    return {std::nullopt, "'" + name + "' is no command; 'help' lists them"};
}

std::string commandHelp() {
    std::string text;
    for (const Row& row : rows)
        text += "  " + std::string(row.name) + (*row.words ? " " : "") + row.words + "\n      " +
                row.help + "\n";
    return text;
}

std::string kindsText(uint32_t kinds) {
    switch (kinds) {
    case 0:
        return "none";
    case audioKind:
        return "audio";
    case videoKind:
        return "video";
    case audioKind | videoKind:
        return "audio+video";
    default:
        return std::to_string(kinds);
    }
}

} // namespace mainsys
