#include "timeline/timeline.h"

#include "timeline/recorder.h"
#include "util/never_destroyed.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <pthread.h>
#include <unistd.h>

namespace timeline {

namespace detail {
std::atomic<bool> isOn{false};
}

namespace {

/// No thread has such a number.
constexpr int firstTrack = 1 << 30;

/// Of this module. Threads outlive it.
Recorder& recorder() {
    static Recorder& recorder = *new Recorder;
    return recorder;
}

Mutex beginMutex;

void record(std::string_view row) {
    if (!recorder().add(row))
        detail::isOn.store(false, std::memory_order_relaxed);
}

std::string quoted(std::string_view text) {
    const auto isPlain = [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; };
    if (std::all_of(text.begin(), text.end(), isPlain))
        return "\"" + std::string(text) + "\"";
    return nlohmann::json(text).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

/// Microseconds, to the nanosecond.
std::string microseconds(Clock::duration time) {
    const auto count = std::chrono::nanoseconds(time).count();
    char text[40];
    std::snprintf(text, sizeof text, "%lld.%03lld", static_cast<long long>(count / 1000),
                  static_cast<long long>(std::abs(count % 1000)));
    return text;
}

/// A row that gives the process or a track its name, rather than one of Event's: those tell of
/// their thread first.
void name(const char* what, int track, const char* name) {
    record("{\"ph\":\"M\",\"name\":\"" + std::string(what) +
           "\",\"pid\":" + std::to_string(getpid()) + ",\"tid\":" + std::to_string(track) +
           ",\"args\":{\"name\":" + quoted(name) + "}}");
}

/// The calling thread's number. Names it when it is new, or has another name: a pool's thread works
/// for one after the other.
int threadTrack() {
    thread_local int number = 0;
    thread_local std::array<char, 16> known{};
    std::array<char, 16> now{};
    pthread_getname_np(pthread_self(), now.data(), now.size());
    if (number == 0 || now != known) {
        number = gettid();
        known = now;
        name("thread_name", number, now.data());
    }
    return number;
}

/// With the mutex of begin().
std::string beginOnce() {
    const char* const path = std::getenv(environmentVariable);
    if (path == nullptr || *path == '\0')
        return {};
    const std::string failure = recorder().open(path);
    if (!failure.empty())
        return failure;
    detail::isOn = true;
    name("process_name", 0, program_invocation_short_name);
    return {};
}

/// The last part.
[[gnu::destructor]] void writeRest() {
    if (isOn())
        recorder().flush();
}

} // namespace

std::string begin() {
    static bool hasBegun = false; // guarded by the mutex
    const MutexLock lock(beginMutex);
    if (hasBegun)
        return {};
    hasBegun = true;
    return beginOnce();
}

std::string beginFile(const std::string& path) {
    std::error_code error;
    const auto whole = std::filesystem::absolute(path, error);
    if (const std::string failure = TraceFile().open(whole); !failure.empty())
        return failure;
    std::filesystem::resize_file(whole, 0, error);
    if (error)
        return "cannot write the time line '" + path + "': " + error.message() +
               "; name another file";
    setenv(environmentVariable, whole.c_str(), 1);
    return begin();
}

std::string flush() {
    return isOn() ? recorder().flush() : std::string();
}

std::uint64_t newId() {
    // Modules of a process count from different numbers: of their own addresses.
    static std::atomic<std::uint64_t> next{
        (static_cast<std::uint64_t>(getpid()) << 40) ^
        (reinterpret_cast<std::uintptr_t>(&detail::isOn) << 12 & 0xffffff0000)};
    return ++next;
}

void nameTrack(int track, const char* text) {
    if (isOn())
        name("thread_name", firstTrack + track, text);
}

Event::Event(char phase, const char* category, std::string_view name, const Place& place,
             std::uint64_t id) {
    const int track = place.track == 0 ? threadTrack() : firstTrack + place.track;
    m_row.reserve(256);
    m_row.append("{\"ph\":\"").append(1, phase).append("\",\"cat\":\"").append(category);
    m_row.append("\",\"name\":").append(quoted(name));
    m_row.append(",\"pid\":").append(std::to_string(getpid()));
    m_row.append(",\"tid\":").append(std::to_string(track));
    m_row.append(",\"ts\":").append(microseconds(place.time.time_since_epoch()));
    if (phase == 'i')
        m_row.append(",\"s\":\"t\"");
    if (phase == static_cast<char>(Flow::End))
        m_row.append(",\"bp\":\"e\""); // at the span around it, not at the next
    if (id == 0)
        return;
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(id));
    m_row.append(",\"id\":\"").append(text).append("\"");
}

Event::~Event() {
    if (!m_arguments.empty())
        m_row.append(",\"args\":{").append(m_arguments).append("}");
    record(m_row.append("}"));
}

Event& Event::with(const char* key, std::string_view value) {
    return withRaw(key, quoted(value));
}

Event& Event::with(const char* key, const char* value) {
    return with(key, std::string_view(value != nullptr ? value : ""));
}

Event& Event::withDouble(const char* key, double value) {
    char text[40] = "null"; // JSON has no words for the others
    if (std::isfinite(value))
        std::snprintf(text, sizeof text, "%.9g", value);
    return withRaw(key, text);
}

Event& Event::withRaw(const char* key, std::string_view json) {
    m_arguments.append(m_arguments.empty() ? "" : ",").append(quoted(key)).append(":");
    m_arguments.append(json);
    return *this;
}

void Event::last(Clock::duration duration) {
    m_row.append(",\"dur\":").append(microseconds(duration));
}

void flow(Flow which, const char* name, std::uint64_t id, const Place& place) {
    Event(static_cast<char>(which), "flow", name, place, id);
}

void Span::open(const char* category, const char* name) {
    m_open = std::make_unique<Open>(category, name, Place());
}

void Span::close() {
    m_open->event.last(Clock::now() - m_open->since);
    m_open.reset();
}

} // namespace timeline
