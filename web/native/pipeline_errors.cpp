#include "pipeline_errors.h"

#include <gst/gst.h>

#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace uva_native {

namespace {

/// The pipeline that has last told its bus something on this thread: what an operation moves does.
thread_local const void* moved = nullptr;

struct Heard {
    std::mutex mutex;                          // nothing is called under it
    std::map<const void*, std::string> errors; // guarded; by pipeline, the first of each
};

/// GStreamer's threads outlive everything here.
Heard& heard() {
    static Heard& instance = *new Heard;
    return instance;
}

std::string textOf(GstMessage* message) {
    GError* parsed = nullptr;
    gst_message_parse_error(message, &parsed, nullptr);
    const std::unique_ptr<GError, decltype(&g_error_free)> error(parsed, g_error_free);
    const gchar* name = GST_MESSAGE_SRC_NAME(message);
    return std::string(name != nullptr ? name : "") + ": " + error->message;
}

/// Each element posts what its children do: at the pipeline it is on its way to the bus.
void messagePosted(GObject*, GstClockTime, GstElement* element, GstMessage* message) noexcept {
    if (!GST_IS_PIPELINE(element))
        return;
    moved = element;
    if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR)
        return;
    auto text = textOf(message);
    auto& log = heard();
    const std::lock_guard<std::mutex> lock(log.mutex);
    log.errors.emplace(element, std::move(text));
}

/// GStreamer must have been initialized, which the library does. Its class of tracers is abstract.
void listen() {
    static const bool isListening = [] {
        const GType type = g_type_register_static_simple(
            GST_TYPE_TRACER, "UvaNativeErrorTracer", sizeof(GstTracerClass), nullptr,
            sizeof(GstTracer), nullptr, static_cast<GTypeFlags>(0));
        auto* const tracer = static_cast<GstTracer*>(g_object_new(type, nullptr)); // as long as it
        gst_tracing_register_hook(tracer, "element-post-message-pre", G_CALLBACK(messagePosted));
        return true;
    }();
    static_cast<void>(isListening);
}

} // namespace

void PipelineErrors::operated() {
    listen();
    const void* const pipeline = std::exchange(moved, nullptr);
    if (pipeline == nullptr || pipeline == m_pipeline)
        return;
    take(); // of the one before
    m_pipeline = pipeline;
}

std::string PipelineErrors::take() {
    auto& log = heard();
    const std::lock_guard<std::mutex> lock(log.mutex);
    const auto found = log.errors.find(m_pipeline);
    if (found == log.errors.end())
        return {};
    auto text = std::move(found->second);
    log.errors.erase(found);
    return text;
}

} // namespace uva_native
