#include "gst_errors.h"

#include "util/mutex.h"
#include "util/printable.h"

#include <gst/gst.h>

#include <string_view>
#include <utility>

namespace uvahost {

namespace {

constexpr const char* category = "uvabackend";
constexpr std::string_view errorLine = "Error received from element '";
constexpr std::string_view detailLine = "Debugging information: ";

/// Threads log until the process has ended: what that uses stays.
struct Heard {
    Mutex mutex; // nothing is called under it
    std::string first GUARDED_BY(mutex);
    bool detailDue GUARDED_BY(mutex) = false; // the next line belongs to `first`
};

Heard& heard() {
    static Heard& instance = *new Heard;
    return instance;
}

/// "qtdemux0: This file is corrupt." of "Error received from element 'qtdemux0': This file is
/// corrupt. (9)"
std::string errorOf(std::string_view line) {
    line.remove_prefix(errorLine.size());
    line = line.substr(0, line.rfind(" ("));
    const auto quote = line.find("':");
    if (quote == std::string_view::npos)
        return std::string(line);
    return std::string(line.substr(0, quote)) + std::string(line.substr(quote + 1));
}

/// What an element adds stands behind where it was said, on lines of its own.
std::string detailOf(std::string_view line) {
    const auto end = line.find('\n');
    if (end == std::string_view::npos || end + 1 == line.size())
        return {};
    return " [" + std::string(line.substr(end + 1)) + "]";
}

void take(std::string_view line) {
    auto& log = heard();
    const MutexLock lock(log.mutex);
    if (line.substr(0, errorLine.size()) == errorLine) {
        log.detailDue = log.first.empty();
        if (log.detailDue)
            log.first = errorOf(line);
    } else if (std::exchange(log.detailDue, false) &&
               line.substr(0, detailLine.size()) == detailLine) {
        log.first += detailOf(line);
    }
}

/// GStreamer may hold locks of the object: it is not looked at.
void overhear(GstDebugCategory* from, GstDebugLevel level, const gchar*, const gchar*, gint,
              GObject*, GstDebugMessage* message, gpointer) noexcept {
    if (level != GST_LEVEL_ERROR || std::string_view(gst_debug_category_get_name(from)) != category)
        return;
    if (const gchar* line = gst_debug_message_get(message))
        take(line);
}

} // namespace

/// The log function is never removed: GStreamer frees what the other threads' lines go through.
void hearGstErrors() {
    gst_debug_remove_log_function(
        nullptr); // which writes to standard error until the library's does
    gst_debug_set_threshold_for_name(category, GST_LEVEL_ERROR);
    gst_debug_add_log_function(overhear, nullptr, nullptr);
}

std::string takeGstError() {
    auto& log = heard();
    const MutexLock lock(log.mutex);
    log.detailDue = false;
    return printable(std::exchange(log.first, {}));
}

} // namespace uvahost
