#include "backend/gstnox_backend.h"
#include "base/gstnox_debug.h"

#include <cstring>

#define GST_CAT_DEFAULT gst_backend_debug

void GstNoxBackend::controlCommands(const char* commands) {
    constexpr char outputDdp[] = "output-ddp:";
    GST_DEBUG("commands = '%s'", GST_STR_NULL(commands));
    if (!m_pipeline.element()) {
        GST_WARNING("***W: called on inactive player");
        return;
    }
    const char* found = commands ? std::strstr(commands, outputDdp) : nullptr;
    if (!found)
        return;
    const char digit = found[sizeof outputDdp - 1];
    controlOutputDdp(g_ascii_isdigit(digit) ? static_cast<unsigned int>(digit - '0') : 0);
}

void GstNoxBackend::controlOutputDdp(unsigned int enable) {
    const auto sink = m_pipeline.audioSink();
    if (!sink)
        return;
    GST_DEBUG("enable=%d", static_cast<int>(enable));
    g_object_set(sink.get(), "output-ddp", enable, nullptr);
}
