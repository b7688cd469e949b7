// What a backend knows of itself, for those who look into a running process.

#include "UvaGstIfReceiver.h"
#include "backend/gstnox_backend.h"
#include "backend/gstnox_registry.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace {

using Json = nlohmann::ordered_json;

/// Null: none.
Json secondsOf(GstClockTime time) {
    if (!GST_CLOCK_TIME_IS_VALID(time))
        return nullptr;
    return static_cast<double>(time) / GST_SECOND;
}

/// Of g_get_monotonic_time().
double secondsSince(gint64 time) {
    return static_cast<double>(g_get_monotonic_time() - time) / G_USEC_PER_SEC;
}

Json addressOf(const void* backend) {
    const GCharPtr text(g_strdup_printf("%p", backend));
    return text.get();
}

Json describe(const SeekState::Facts& facts) {
    using Phase = SeekState::Phase;
    return {{"phase", facts.phase == Phase::None      ? "none"
                      : facts.phase == Phase::Pending ? "waits for the client"
                                                      : "is being made"},
            {"requested", facts.requested},
            {"succeeded", facts.succeeded},
            {"failed", facts.failed}};
}

const char* nameOf(DecoderHandshake::WaitFor whom) {
    return whom == DecoderHandshake::WaitFor::Client ? "client" : "main system";
}

Json describe(const DecoderHandshake::Wait& wait) {
    return {{"sink", wait.sink},
            {"kind", wait.kind},
            {"waits_for", nameOf(wait.whom)},
            {"seconds", secondsSince(wait.since)}};
}

Json describe(const DecoderHandshake::Wait& refusal, const char* whose) {
    return {{"sink", refusal.sink},
            {"kind", refusal.kind},
            {"by", whose},
            {"seconds_ago", secondsSince(refusal.since)}};
}

Json describe(const std::vector<EventLog::Entry>& entries) {
    auto events = Json::array();
    for (const auto& entry : entries)
        events.push_back({{"number", entry.number},
                          {"name", GstNoxBackend::eventName(entry.type)},
                          {"seconds_ago", secondsSince(entry.time)}});
    return events;
}

/// Without what may be a secret: who asks, and what for in particular.
std::string publicPartOf(const char* address) {
    std::string url(address);
    url.erase(std::min(url.find_first_of("?#"), url.size()));
    const auto host = url.find("://");
    const auto at = url.rfind('@', url.find('/', host == std::string::npos ? 0 : host + 3));
    if (host != std::string::npos && at != std::string::npos && at > host)
        url.erase(host + 3, at + 1 - (host + 3));
    return url;
}

void describe(const GstNoxPipeline::Facts& facts, Json& state) {
    state["pipeline"] = {{"state", gst_element_state_get_name(facts.state)},
                         {"pending", gst_element_state_get_name(facts.pending)}};
    if (facts.url)
        state["url"] = {{"address", publicPartOf(facts.url.get())},
                        {"bytes_read", facts.bytesRead ? Json(*facts.bytesRead) : Json()}};
}

Json describe(unsigned int id, const GstMseBin::Facts& facts) {
    const auto& decryption = facts.decryption;
    Json source{{"id", id},
                {"name", facts.name},
                {"state", gst_element_state_get_name(facts.state)},
                {"queued", facts.queued},
                {"bytes", facts.bytes},
                {"needs_data", facts.needsData},
                {"ended", facts.hasEnded},
                {"first_start_seconds", secondsOf(facts.firstStart)},
                {"last_end_seconds", secondsOf(facts.lastEnd)},
                {"frame_rate", {facts.frameRate.first, facts.frameRate.second}},
                {"decrypted", decryption.decrypted},
                {"not_decrypted", decryption.failed}};
    if (facts.needsData && facts.queued == 0 && !facts.hasEnded)
        source["waits_for_data_seconds"] = secondsSince(facts.neededSince);
    if (decryption.busySince != 0)
        source["waits_for_decryption_seconds"] = secondsSince(decryption.busySince);
    return source;
}

Json describe(const CUvaGstIfReceiver::State& link) {
    return {{"available", link.available},
            {"used", link.used},
            {"asked_back", link.releaseRequest},
            {"request_pending", link.requestPending},
            {"waiting", link.waiting}};
}

} // namespace

GstNoxBackend::Registry& GstNoxBackend::Registry::instance() {
    static Registry& registry = *new Registry;
    return registry;
}

std::string GstNoxBackend::describeAll() {
    std::vector<MediaSources::Source> seen; // one that is removed meanwhile goes after the lock
    std::string text;
    Registry::instance().forEach([&](GstNoxBackend& backend) { text += backend.listing(seen); });
    return text;
}

GstState GstNoxBackend::wantedState() {
    const GLibLock lock(m_lock);
    return m_state;
}

std::string GstNoxBackend::listing(std::vector<MediaSources::Source>& seen) {
    const GCharPtr head(g_strdup_printf(
        "%p %s position=%" GST_TIME_FORMAT "\n", static_cast<void*>(this),
        gst_element_state_get_name(wantedState()), GST_TIME_ARGS(m_seek.position())));
    std::string text = head.get();
    for (auto& bin : m_sources.all()) {
        text += "  " + bin->describe() + "\n";
        seen.push_back(std::move(bin));
    }
    return text;
}

/// What goes after the registry's lock, as it may be the last share of what is removed meanwhile.
struct GstNoxBackend::Seen {
    std::vector<MediaSources::Source> sources;
    std::vector<GstPtr<GstElement>> pipelines; ///< null: none
};

/// Elements are asked when no lock is held any more.
Json GstNoxBackend::stateOfAll() {
    Seen seen;
    auto backends = Json::array();
    Registry::instance().forEach(
        [&](GstNoxBackend& backend) { backends.push_back(backend.state(seen)); });
    for (std::size_t i = 0; i < backends.size(); ++i)
        describe(GstNoxPipeline::factsOf(seen.pipelines[i].get()), backends[i]);
    Json all{{"backends", std::move(backends)}, {"decoder_link", nullptr}};
    if (auto* const link = g_link.load())
        all["decoder_link"] = describe(link->state());
    return all;
}

Json GstNoxBackend::state(Seen& seen) {
    seen.pipelines.push_back(m_pipeline.element());
    const auto seek = m_seek.facts();
    const auto size = m_facts.size();
    const auto duration = m_facts.duration();
    Json state{{"address", addressOf(this)},
               {"state", gst_element_state_get_name(wantedState())},
               {"position_seconds", secondsOf(seek.position)},
               {"duration_seconds",
                duration < 0 ? Json() : secondsOf(static_cast<GstClockTime>(duration))},
               {"width", size.width},
               {"height", size.height},
               {"client_resources", m_decoders.resourcesState()},
               {"seek", describe(seek)},
               {"decoder_requests", Json::array()},
               {"sources", Json::array()}};
    for (const auto& wait : m_decoders.waits())
        state["decoder_requests"].push_back(describe(wait));
    for (auto& bin : m_sources.all()) {
        state["sources"].push_back(describe(bin->id(), bin->facts()));
        seen.sources.push_back(std::move(bin));
    }
    if (const auto keys = m_sourceGroup.keySystem())
        state["key_system"] = keys->id ? keys->id.get() : "";
    if (const auto refusal = m_decoders.refusal())
        state["decoder_refused"] = describe(*refusal, nameOf(refusal->whom));
    state["events"] = describe(m_events.entries());
    const GLibLock lock(m_lock);
    if (m_buffering.percent < 100)
        state["buffering"] = {{"percent", m_buffering.percent},
                              {"seconds", secondsSince(m_buffering.since)}};
    if (!m_lastError.text.empty())
        state["last_error"] = {{"text", m_lastError.text},
                               {"seconds_ago", secondsSince(m_lastError.time)}};
    return state;
}

std::string GstNoxBackend::graphOf(const void* backend) {
    std::vector<GstPtr<GstElement>> pipelines; // one that is stopped meanwhile goes after the lock
    Registry::instance().forEach([&](GstNoxBackend& each) {
        if (backend == nullptr || backend == &each)
            pipelines.push_back(each.m_pipeline.element());
    });
    if (pipelines.empty() || !pipelines.back())
        return {};
    const GCharPtr graph(
        gst_debug_bin_to_dot_data(GST_BIN(pipelines.back().get()), GST_DEBUG_GRAPH_SHOW_ALL));
    return graph ? graph.get() : ""; // null: GStreamer has none of its own
}
