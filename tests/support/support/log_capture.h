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
        // Never removed: GStreamer frees one under the threads that are about to call it.
        static std::once_flag added;
        std::call_once(added, [] { gst_debug_add_log_function(collect, nullptr, nullptr); });
        {
            const std::lock_guard lock(living().mutex);
            living().captures.push_back(this);
        }
        gst_debug_category_set_threshold(category, level);
    }
    ~LogCapture() {
        gst_debug_category_set_threshold(m_category, m_threshold);
        const std::lock_guard lock(living().mutex);
        auto& captures = living().captures;
        captures.erase(std::find(captures.begin(), captures.end(), this));
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// Lines as "LEVEL text", e.g. "ERROR ***E: no sources".
    std::vector<std::string> lines() {
        const std::lock_guard lock(living().mutex);
        return m_lines;
    }
    bool has(const std::string& line) {
        const auto all = lines();
        return std::find(all.begin(), all.end(), line) != all.end();
    }

private:
    struct Living {
        std::mutex mutex; ///< guards captures, and the lines of each
        std::vector<LogCapture*> captures;
    };
    static Living& living() {
        static auto& one = *new Living;
        return one;
    }

    static void collect(GstDebugCategory* category, GstDebugLevel level, const gchar* /*file*/,
                        const gchar* /*function*/, gint /*line*/, GObject* /*object*/,
                        GstDebugMessage* message, gpointer /*user*/) {
        std::string name = gst_debug_level_get_name(level);
        name.erase(name.find_last_not_of(' ') + 1);
        const std::lock_guard lock(living().mutex);
        for (auto* const capture : living().captures)
            if (category == capture->m_category)
                capture->m_lines.push_back(name + " " + gst_debug_message_get(message));
    }

    GstDebugCategory* const m_category;
    const GstDebugLevel m_threshold;
    std::vector<std::string> m_lines;
};

} // namespace support

#endif
