#include "orders.h"

#include "messaging/queue/signal_ids.h"
#include "session.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <cmath>
#include <iterator>
#include <limits>
#include <sstream>
#include <utility>

namespace mainsys {

namespace {

using Mode = Arbiter::Mode;

constexpr int64_t mostMessages = 100000;
constexpr double longestDelay = 3600; // seconds

uint32_t kindsOf(const ScriptArguments& call) {
    const std::string& name = call.text(1, "audio, video or both");
    if (const uint32_t kinds = kindsNamed(name))
        return kinds;
    throw ScriptError("'" + name + "' is no kind of decoder: write audio, video or both");
}

uint32_t fitting(int64_t value, const std::string& what) {
    constexpr int64_t most = std::numeric_limits<uint32_t>::max();
    if (value < -most || value > most)
        throw ScriptError(what + " has 32 bits: " + std::to_string(value) + " does not fit");
    return static_cast<uint32_t>(value);
}

/// A number, or a name as the list of signals has it, or its end.
uint32_t signalOf(const ScriptArguments& call) {
    if (call.has(1) && call.arguments[0].is_number())
        return fitting(call.number(1, "signal"), "a signal");
    const std::string& text = call.text(1, "signal");
    for (uint32_t id = 1; id < nrOfSignalIds; ++id) {
        const std::string name = GetSignalIdNamePtr(static_cast<SignalIds>(id));
        if (name == text || name == "SIG_ID_" + text || name == "SIG_ID_MPLAYER_" + text)
            return id;
    }
    throw ScriptError("'" + text +
                      "' is no signal: take a name from the log, such as "
                      "DECODER_NEEDED_IND, or a number");
}

uint32_t countOf(int64_t count) {
    if (count < 1 || count > mostMessages)
        throw ScriptError("the count is from 1 to " + std::to_string(mostMessages));
    return static_cast<uint32_t>(count);
}

ScriptValues delay(Session& session, const ScriptArguments& call) {
    const double seconds = call.seconds(1, "seconds");
    if (seconds > longestDelay)
        throw ScriptError("a delay is an hour at most");
    session.setDelay(std::chrono::milliseconds(std::llround(seconds * 1000)));
    return {};
}

ScriptValues raw(Session& session, const ScriptArguments& call) {
    ZantMsgBody body{};
    uint32_t count = 1;
    const std::pair<const char*, void*> fields[] = {
        {"param1", &body.param1},    {"size", &body.signalSize},    {"address", &body.signalPtr},
        {"object", &body.signalObj}, {"control", &body.rpcControl}, {"count", &count}};
    body.signalId = signalOf(call);
    const auto given = call.has(2) ? call.arguments[1] : ScriptValue::object();
    for (const auto& [name, value] : given.items()) {
        const auto field =
            std::find_if(std::begin(fields), std::end(fields),
                         [&key = name](const auto& each) { return key == each.first; });
        const auto whole = wholeNumber(value);
        if (field == std::end(fields) || !whole)
            throw ScriptError("'" + name +
                              "' is no field, or its value no whole number: param1, "
                              "size, address, object, control and count are");
        *static_cast<uint32_t*>(field->second) = fitting(*whole, name);
    }
    session.sendRaw(body, countOf(count));
    return {};
}

/// The commands.
constexpr struct {
    const char* name;
    const char* parameters;
    const char* help;
    ScriptValues (*obey)(Session&, const ScriptArguments&);
} rows[] = {
    {"grant", "[kind]",
     "grant what is asked for, from now on and what waits; with audio, video or both: that, now",
     [](Session& session, const ScriptArguments& call) {
         session.grant(call.has(1) ? kindsOf(call) : 0);
         return ScriptValues{};
     }},
    {"refuse", "", "refuse from now on, and what waits",
     [](Session& session, const ScriptArguments&) {
         session.setMode(Mode::Refuse);
         return ScriptValues{};
     }},
    {"ignore", "", "leave requests waiting from now on",
     [](Session& session, const ScriptArguments&) {
         session.setMode(Mode::Ignore);
         return ScriptValues{};
     }},
    {"delay", "seconds", "answer so much later from now on", delay},
    {"release", "kind", "ask decoders back",
     [](Session& session, const ScriptArguments& call) {
         session.askBack(kindsOf(call));
         return ScriptValues{};
     }},
    {"control", "text", "send a control request, such as output-ddp:1",
     [](Session& session, const ScriptArguments& call) {
         session.control(call.text(1, "text"));
         return ScriptValues{};
     }},
    {"lend", "kind",
     "give it to another application, asking it back from the plug-in: requests wait",
     [](Session& session, const ScriptArguments& call) {
         session.lend(kindsOf(call));
         return ScriptValues{};
     }},
    {"take", "kind", "the other application has given it back",
     [](Session& session, const ScriptArguments& call) {
         session.takeBack(kindsOf(call));
         return ScriptValues{};
     }},
    {"crash", "", "die at once, by SIGKILL: queue and shared memory stay as they are",
     [](Session& session, const ScriptArguments&) {
         session.crash();
         return ScriptValues{};
     }},
    {"restart", "", "start anew: queue made anew, sequence number 1, all decoders free",
     [](Session& session, const ScriptArguments&) {
         session.restart();
         return ScriptValues{};
     }},
    {"raw", "signal [, fields]",
     "put a body into the queue as it is; fields are param1, size, address, object, control, count",
     raw},
    {"garbage", "count", "put bodies of random bytes into the queue",
     [](Session& session, const ScriptArguments& call) {
         session.sendGarbage(countOf(call.number(1, "count")));
         return ScriptValues{};
     }},
    {"status", "", "who has what",
     [](Session& session, const ScriptArguments&) { return ScriptValues{session.status()}; }},
    {"quit", "", "end",
     [](Session& session, const ScriptArguments&) {
         session.quit();
         return ScriptValues{};
     }},
};
using Row = decltype(rows[0]);

std::string usageOf(Row row) {
    return std::string(row.name) + "(" + row.parameters + ")";
}

std::string wordsOf(Row row, const ScriptValues& arguments) {
    std::string text = row.name;
    for (const ScriptValue& each : arguments)
        text += " " + (each.is_string()
                           ? each.get<std::string>()
                           : each.dump(-1, ' ', false, ScriptValue::error_handler_t::replace));
    return text;
}

ScriptValues obey(Session& session, Row row, const ScriptArguments& call) {
    call.refuseMoreThan(usageOf(row));
    session.noteOrder(wordsOf(row, call.arguments));
    ScriptValues result = row.obey(session, call);
    session.tellStates();
    return result;
}

/// The words behind a command's name. Behind the first, NAME=VALUE is a field of the one table,
/// the last argument.
ScriptValues argumentsOf(std::istream& words) {
    ScriptValues arguments;
    auto fields = ScriptValue::object();
    for (std::string word; words >> word;) {
        const auto equals = arguments.empty() ? std::string::npos : word.find('=');
        if (equals == std::string::npos)
            arguments.push_back(scriptValueOf(word));
        else
            fields[word.substr(0, equals)] = scriptValueOf(word.substr(equals + 1));
    }
    if (!fields.empty())
        arguments.push_back(std::move(fields));
    return arguments;
}

} // namespace

void registerOrders(Session& session) {
    for (Row row : rows) {
        const std::string why = registerScriptCommand(
            row.name, usageOf(row) + "\t" + row.help,
            [&session, &row](const ScriptCall& call) { return obey(session, row, call); });
        assert(why.empty());
    }
}

ScriptValues obeyLine(Session& session, const std::string& line) {
    std::istringstream words(line.substr(0, line.find('#')));
    std::string name;
    if (!(words >> name))
        return {};
    if (name == "help")
        return {ordersHelp()};
    for (Row row : rows)
        if (name == row.name)
            try {
                return obey(session, row, {argumentsOf(words)});
            } catch (const ScriptError& error) {
                throw ScriptError(name + ": " + error.what());
            }
    throw ScriptError("'" + name + "' is no command; 'help' lists them");
}

std::string ordersHelp() {
    std::string text;
    for (Row row : rows)
        text += "  " + usageOf(row) + "\n      " + row.help + "\n";
    return text;
}

} // namespace mainsys
