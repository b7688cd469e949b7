#include "why.h"

#include <array>
#include <cstdio>

namespace scope {

namespace {

/// What takes no longer than this is how playback goes.
constexpr double noticed = 0.5; // seconds

struct Question {
    const Standing& standing;
    const Seen& seen;
    double time;

    double stillFor() const { return time - standing.movedAt; }
    const Json& backend() const { return seen.backend; }
};

using Answer = std::optional<Why>;

/// The element of a list in which a number is the greatest; null: none has one.
const Json* longest(const Json& list, const char* name) {
    const Json* found = nullptr;
    for (const auto& each : list)
        if (const auto seconds = numberIn(each, name);
            seconds && (found == nullptr || *seconds > *numberIn(*found, name)))
            found = &each;
    return found;
}

std::string quoted(const std::string& text) {
    return text.empty() ? "a sink" : text;
}

bool isRemote(const std::string& address) {
    const auto end = address.find("://");
    return end != std::string::npos && end > 1 && address.compare(0, end, "file") != 0;
}

/// An event after which no other of these two came.
bool hasFinished(const Json& backend) {
    bool finished = false;
    for (const auto& event : listIn(backend, "events")) {
        const auto name = textIn(event, "name");
        if (name == "PlaybackFinished")
            finished = true;
        else if (name == "CancelDataRequestsAsync")
            finished = false;
    }
    return finished;
}

// Each looks for one reason. The first that finds one is believed.

Answer notWanted(const Question& q) {
    const auto state = textIn(q.backend(), "state");
    if (state == "PLAYING" || state == "PAUSED")
        return std::nullopt;
    return Why{Who::Nobody, 0, "nothing is to be played: the client has not asked for it"};
}

Answer waitsForDecoder(const Question& q) {
    const auto* wait = longest(listIn(q.backend(), "decoder_requests"), "seconds");
    if (wait == nullptr || *numberIn(*wait, "seconds") < noticed)
        return std::nullopt;
    const double seconds = *numberIn(*wait, "seconds");
    const auto kind = textIn(*wait, "kind");
    const auto sink = quoted(textIn(*wait, "sink"));
    if (textIn(*wait, "waits_for") == "client")
        return Why{Who::Client, seconds,
                   "the client has not answered whether " + sink +
                       " may have a decoder "
                       "(BackendResourceRequestAsync)"};
    if (has(member(q.seen.mainSystem, "lent"), kind))
        return Why{Who::Decoder, seconds,
                   sink + " asks for the " + kind +
                       " decoder, which the main system has lent to another application"};
    return Why{Who::MainSystem, seconds,
               "the main system has not answered the request of " + sink + " for the " + kind +
                   " decoder"};
}

Answer hasFinishedAll(const Question& q) {
    if (!hasFinished(q.backend()))
        return std::nullopt;
    return Why{Who::Nobody, 0, "it has been played to its end"};
}

Answer moves(const Question& q) {
    if (q.stillFor() >= noticed)
        return std::nullopt;
    return Why{Who::Nobody, 0, q.standing.position ? "it moves" : "it has only just begun"};
}

Answer isPaused(const Question& q) {
    const auto& pipeline = member(q.backend(), "pipeline");
    const bool isThere =
        textIn(pipeline, "state") == "PAUSED" && textIn(pipeline, "pending") == "VOID_PENDING";
    if (textIn(q.backend(), "state") != "PAUSED" || !isThere)
        return std::nullopt;
    return Why{Who::Nobody, 0, "the client has paused"};
}

Answer wasRefused(const Question& q) {
    const auto& refused = member(q.backend(), "decoder_refused");
    const auto seconds = numberIn(refused, "seconds_ago");
    if (!seconds)
        return std::nullopt;
    const auto what =
        quoted(textIn(refused, "sink")) + " the " + textIn(refused, "kind") + " decoder";
    if (textIn(refused, "by") == "client")
        return Why{Who::Client, *seconds, "the client has refused " + what};
    return Why{Who::Decoder, *seconds, "the main system has not granted " + what};
}

Answer isAskedBack(const Question& q) {
    const auto mask = numberIn(q.seen.link, "asked_back");
    if (!mask || *mask == 0)
        return std::nullopt;
    return Why{Who::Decoder, q.stillFor(), "the main system has asked a decoder back"};
}

Answer seeks(const Question& q) {
    if (textIn(member(q.backend(), "seek"), "phase") != "waits for the client")
        return std::nullopt;
    return Why{Who::Client, q.stillFor(),
               "a seek waits until the client has dropped its requests "
               "(CancelDataRequestsAsync)"};
}

Answer waitsForKey(const Question& q) {
    constexpr const char* busy = "waits_for_decryption_seconds";
    const auto* source = longest(listIn(q.backend(), "sources"), busy);
    if (source != nullptr && *numberIn(*source, busy) >= noticed)
        return Why{Who::Key, *numberIn(*source, busy),
                   "a sample of " + textIn(*source, "name") + " is with the client's decrypter"};
    if (q.standing.failedAt && q.time - *q.standing.failedAt < 5)
        return Why{Who::Key, q.stillFor(),
                   "samples cannot be decrypted: the key is missing, or wrong"};
    return std::nullopt;
}

Answer waitsForData(const Question& q) {
    constexpr const char* waits = "waits_for_data_seconds";
    const auto& sources = listIn(q.backend(), "sources");
    const auto* source = longest(sources, waits);
    if (source == nullptr || *numberIn(*source, waits) < noticed)
        return std::nullopt;
    const double seconds = *numberIn(*source, waits);
    const auto system = textIn(q.backend(), "key_system");
    bool hasDecrypted = false;
    for (const auto& each : sources)
        hasDecrypted = hasDecrypted || numberIn(each, "decrypted").value_or(0) > 0;
    if (!system.empty() && !hasDecrypted)
        return Why{Who::Key, seconds,
                   "the client has set the key system " + system + " and holds back what " +
                       textIn(*source, "name") + " waits for: it has no key yet"};
    return Why{Who::Data, seconds, "the client delivers no samples for " + textIn(*source, "name")};
}

Answer waitsForNetwork(const Question& q) {
    const auto& url = member(q.backend(), "url");
    const auto address = textIn(url, "address");
    if (!isRemote(address))
        return std::nullopt;
    const auto& buffering = member(q.backend(), "buffering");
    const auto percent = numberIn(buffering, "percent");
    const auto state = textIn(member(q.backend(), "pipeline"), "state");
    const bool hasBegun = state == "PAUSED" || state == "PLAYING";
    if (hasBegun && !percent)
        return std::nullopt;
    const double silent = q.time - q.standing.bytesAt;
    char read[64];
    std::snprintf(read, sizeof read, " after %.0f bytes", q.standing.bytes.value_or(0));
    if (silent >= noticed)
        return Why{Who::Network, silent, "nothing comes from " + address + read};
    return Why{Who::Network, q.stillFor(),
               address + " is too slow: what comes is played at once, " +
                   std::to_string(static_cast<int>(percent.value_or(0))) + " % is buffered"};
}

Answer isUnknown(const Question& q) {
    std::string sentence = "nobody that is known of is waited for: look at the graph, the threads "
                           "and the traces";
    const auto& error = member(q.backend(), "last_error");
    if (const auto text = textIn(error, "text"); !text.empty())
        sentence += "; the last error was " + text;
    return Why{Who::Unknown, q.stillFor(), std::move(sentence)};
}

constexpr std::array<Answer (*)(const Question&), 11> reasons = {
    notWanted, waitsForDecoder, hasFinishedAll, moves,           isAskedBack, wasRefused,
    seeks,     waitsForKey,     waitsForData,   waitsForNetwork, isPaused,
};

} // namespace

const char* nameOf(Who who) {
    static constexpr const char* names[] = {"",    "client",  "main system", "data",
                                            "key", "decoder", "network",     "unknown"};
    return names[static_cast<std::size_t>(who)];
}

Standing follow(const std::optional<Standing>& before, const Json& backend, double time) {
    Standing now;
    now.position = numberIn(backend, "position_seconds");
    now.bytes = numberIn(member(backend, "url"), "bytes_read");
    for (const auto& source : listIn(backend, "sources"))
        now.notDecrypted += numberIn(source, "not_decrypted").value_or(0);
    const bool isFirst = !before.has_value();
    now.movedAt = isFirst || now.position != before->position ? time : before->movedAt;
    now.bytesAt = isFirst || now.bytes != before->bytes ? time : before->bytesAt;
    if (!isFirst)
        now.failedAt =
            now.notDecrypted > before->notDecrypted ? std::optional(time) : before->failedAt;
    return now;
}

Why explain(const Standing& standing, const Seen& seen, double time) {
    const Question question{standing, seen, time};
    for (const auto reason : reasons)
        if (auto why = reason(question))
            return *std::move(why);
    return *isUnknown(question);
}

} // namespace scope
