#include "recorded_syslog.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <syslog.h>

namespace {

std::mutex recordedMutex;
std::vector<std::pair<int, std::string>> recorded;

} // namespace

extern "C" void syslog(int priority, const char* format, ...) {
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const std::lock_guard<std::mutex> lock(recordedMutex);
    recorded.emplace_back(priority, text);
}

std::vector<std::pair<int, std::string>> takeSyslog() {
    const std::lock_guard<std::mutex> lock(recordedMutex);
    return std::exchange(recorded, {});
}
