#ifndef SUPPORT_LOG_CAPTURE_H
#define SUPPORT_LOG_CAPTURE_H

#include <gst/gst.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace support {

/// Collects what one debug category logs while it lives, up to a level.
class LogCapture {
public:
    explicit LogCapture(GstDebugCategory* category, GstDebugLevel level = GST_LEVEL_LOG)
        : m_category(category), m_threshold(gst_debug_category_get_threshold(category)) {
        gst_debug_add_log_function(collect, this, nullptr);
        gst_debug_category_set_threshold(category, level);
    }
    ~LogCapture() {
        gst_debug_category_set_threshold(m_category, m_threshold);
        gst_debug_remove_log_function_by_data(this);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// Lines as "LEVEL text", e.g. "ERROR ***E: no sources".
    std::vector<std::string> lines() {
        const std::lock_guard lock(m_mutex);
        return m_lines;
    }
    bool has(const std::string& line) {
        const auto all = lines();
        return std::find(all.begin(), all.end(), line) != all.end();
    }

private:
    static void collect(GstDebugCategory* category, GstDebugLevel level, const gchar* /*file*/,
                        const gchar* /*function*/, gint /*line*/, GObject* /*object*/,
                        GstDebugMessage* message, gpointer self) {
        auto* const capture = static_cast<LogCapture*>(self);
        if (category != capture->m_category)
            return;
        const std::lock_guard lock(capture->m_mutex);
        std::string name = gst_debug_level_get_name(level);
        name.erase(name.find_last_not_of(' ') + 1);
        capture->m_lines.push_back(name + " " + gst_debug_message_get(message));
    }

    GstDebugCategory* const m_category;
    const GstDebugLevel m_threshold;
    std::mutex m_mutex; // guards m_lines
    std::vector<std::string> m_lines;
};

} // namespace support

#endif
