#include "progress_watch.h"

#include <cstdio>
#include <utility>

namespace host {

namespace {

using std::chrono::milliseconds;

struct Row {
    Phase phase;
    milliseconds bound;
    const char* still; // nothing moved for the bound
    const char* error; // ... and there is an error to quote
    const char* next;
};

constexpr const char* lookAtTheMedia = "is it intact and of a supported type? GST_DEBUG=2 puts "
                                       "GStreamer's reasons into the system log";
constexpr const char* lookAtTheNetwork = "check the address, the network and the server";

// Opening has room for a display that takes long to start. GStreamer's HTTP source gives up by
// itself after 15 s and says less: the network's bounds are shorter. A main system that does not
// answer is reported by the backend, which has a bound of its own: here it is only for shorter
// ones.
constexpr Row rows[] = {
    {Phase::Connecting, milliseconds(10000), "no media came from {source} within {time}",
     "nothing can be fetched from {source}", lookAtTheNetwork},
    {Phase::Opening, milliseconds(15000), "nothing was played within {time}",
     "the media cannot be played", lookAtTheMedia},
    {Phase::WaitingForDecoder, milliseconds(0),
     "the main system did not answer the request for the decoder within {time}",
     "the media cannot be played",
     "start zant-mainsys, or play without a main system (NOX_GST_STANDALONE=1)"},
    {Phase::Playing, milliseconds(5000), "stalled at {position}: nothing moved for {time}",
     "stopped at {position}", lookAtTheMedia},
    {Phase::Seeking, milliseconds(10000), "the seek to {target} did not complete within {time}",
     "the seek to {target} failed", lookAtTheMedia},
    {Phase::WaitingForData, milliseconds(10000),
     "stalled at {position}: no data came from {source} for {time}",
     "stopped at {position}: no more can be had from {source}", lookAtTheNetwork},
    {Phase::WaitingForKey, milliseconds(30000), "stalled at {position}: no key came for {time}",
     "stopped at {position} without a key", "check the licence server"},
};

const Row& rowOf(Phase phase) {
    return *std::find_if(std::begin(rows), std::end(rows),
                         [phase](const Row& row) { return row.phase == phase; });
}

} // namespace

milliseconds boundOf(Phase phase) {
    return rowOf(phase).bound;
}

std::string secondsText(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", value);
    return text;
}

std::string explain(Phase phase, const Standstill& standstill, const std::string& error) {
    const std::pair<const char*, std::string> words[] = {
        {"{source}", standstill.server.empty() ? "the media's file" : standstill.server},
        {"{position}", secondsText(standstill.position)},
        {"{target}", secondsText(standstill.target)},
        {"{time}", secondsText(std::chrono::duration<double>(standstill.bound).count())},
    };
    const Row& row = rowOf(phase);
    std::string text = error.empty() ? row.still : row.error;
    for (const auto& [name, word] : words)
        if (const auto at = text.find(name); at != std::string::npos)
            text.replace(at, std::string_view(name).size(), word);
    if (!error.empty())
        text += " (GStreamer: " + error + ")";
    return text + "; " + row.next;
}

} // namespace host
