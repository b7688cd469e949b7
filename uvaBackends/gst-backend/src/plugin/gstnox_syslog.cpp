#include "plugin/gstnox_syslog.h"

#include <sys/time.h>
#include <sys/uio.h>
#include <syslog.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <unistd.h>

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

using Name = std::array<char, 256>; // a longer one is cut

/// Copies a text that may be freed meanwhile: where the kernel finds nothing, there is no text.
Name copyText(const char* text) {
    Name copy{};
    const iovec to{copy.data(), copy.size() - 1};
    const iovec from{const_cast<char*>(text), copy.size() - 1};
    const ssize_t size = process_vm_readv(getpid(), &to, 1, &from, 1, 0);
    if (size >= 0)
        copy[static_cast<std::size_t>(size)] = '\0';
    else if (errno != EFAULT) // a kernel that does not copy: read as GStreamer's own log does
        g_strlcpy(copy.data(), text, copy.size());
    return copy;
}

/// GStreamer logs with the object's lock held, so the name is read without it: again, when the
/// object was renamed meanwhile.
Name nameOf(GObject* object) {
    if (!GST_IS_OBJECT(object))
        return copyText(G_OBJECT_TYPE_NAME(object));
    Name name{};
    const char* read = nullptr;
    while (auto* now = __atomic_load_n(&GST_OBJECT_NAME(object), __ATOMIC_ACQUIRE)) {
        if (now == read)
            break;
        read = now;
        name = copyText(now);
    }
    return name;
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
    syslog(syslogPriority(level), "%s: <gst:%s> [%08lx] %s(%d):%s() '%s': %s\n", time.data(),
           categoryName, thread, baseName, line, function, nameOf(object).data(), text);
}
