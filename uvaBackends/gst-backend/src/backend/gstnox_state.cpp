// What a backend knows of itself, for those who look into a running process.

#include "UvaGstIfReceiver.h"
#include "backend/gstnox_backend.h"
#include "backend/gstnox_registry.h"

#include <nlohmann/json.hpp>

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

Json describe(const DecoderHandshake::Wait& wait) {
    const bool forClient = wait.whom == DecoderHandshake::WaitFor::Client;
    return {{"sink", wait.sink},
            {"kind", wait.kind},
            {"waits_for", forClient ? "client" : "main system"},
            {"seconds", secondsSince(wait.since)}};
}

Json describe(unsigned int id, const GstMseBin::Facts& facts) {
    const auto& decryption = facts.decryption;
    Json source{{"id", id},
                {"name", facts.name},
                {"state", gst_element_state_get_name(facts.state)},
                {"queued", facts.queued},
                {"bytes", facts.bytes},
                {"needs_data", facts.needsData},
                {"first_start_seconds", secondsOf(facts.firstStart)},
                {"last_end_seconds", secondsOf(facts.lastEnd)},
                {"frame_rate", {facts.frameRate.first, facts.frameRate.second}},
                {"decrypted", decryption.decrypted},
                {"not_decrypted", decryption.failed}};
    if (facts.needsData && facts.queued == 0)
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

Json GstNoxBackend::stateOfAll() {
    std::vector<MediaSources::Source> seen; // as above
    auto backends = Json::array();
    Registry::instance().forEach(
        [&](GstNoxBackend& backend) { backends.push_back(backend.state(seen)); });
    Json all{{"backends", std::move(backends)}, {"decoder_link", nullptr}};
    if (auto* const link = g_link.load())
        all["decoder_link"] = describe(link->state());
    return all;
}

Json GstNoxBackend::state(std::vector<MediaSources::Source>& seen) {
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
        seen.push_back(std::move(bin));
    }
    if (const auto keys = m_sourceGroup.keySystem())
        state["key_system"] = keys->id ? keys->id.get() : "";
    const GLibLock lock(m_lock);
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
