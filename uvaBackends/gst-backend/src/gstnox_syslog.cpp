#include "gstnox_syslog.h"

#include "gst_ptr.h"

#include <sys/time.h>
#include <syslog.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <pthread.h>

namespace {

int syslogPriority(GstDebugLevel level) {
    static constexpr std::array priorities{LOG_CRIT,   LOG_ERR,  LOG_WARNING,
                                           LOG_NOTICE, LOG_INFO, LOG_DEBUG};
    const auto index = static_cast<std::size_t>(level < 0 ? 0 : level);
    return index < priorities.size() ? priorities[index] : LOG_DEBUG;
}

/// "hh:mm:ss.uuuuuu", local time.
std::array<char, 32> timeOfDay() {
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%02d:%02d:%02d.%06ld", local.tm_hour, local.tm_min,
                  local.tm_sec, static_cast<long>(now.tv_usec));
    return text;
}

} // namespace

void gstLogToSyslog(GstDebugCategory* category, GstDebugLevel level, const gchar* file,
                    const gchar* function, gint line, GObject* object, GstDebugMessage* message,
                    gpointer /*unused*/) {
    const auto time = timeOfDay();
    const char* slash = std::strrchr(file, '/');
    const char* baseName = slash != nullptr ? slash + 1 : file;
    const auto thread = static_cast<unsigned long>(pthread_self());
    const char* categoryName = gst_debug_category_get_name(category);
    const char* text = gst_debug_message_get(message);
    if (object == nullptr) {
        syslog(syslogPriority(level), "%s: <gst:%s> [%08lx] %s(%d):%s(): %s\n", time.data(),
               categoryName, thread, baseName, line, function, text);
        return;
    }
    const GCharPtr name(GST_IS_OBJECT(object) ? gst_object_get_name(GST_OBJECT_CAST(object))
                                              : g_strdup(G_OBJECT_TYPE_NAME(object)));
    syslog(syslogPriority(level), "%s: <gst:%s> [%08lx] %s(%d):%s() '%s': %s\n", time.data(),
           categoryName, thread, baseName, line, function, name ? name.get() : "", text);
}
