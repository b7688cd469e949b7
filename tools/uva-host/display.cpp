#include "display.h"

#include "script/script_events.h"
#include "terminal.h"
#include "util/printable.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>

namespace uvahost {

namespace {

constexpr const char* clearLine = "\r\x1b[K";

/// Through the stream that the backend's own lines take, so that they do not overtake each other.
/// Errors stay in the stream: they are looked at once, at the end.
void print(const std::string& text) {
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

[[gnu::format(printf, 1, 2)]] std::string format(const char* pattern, ...) {
    char text[256];
    va_list values;
    va_start(values, pattern);
    std::vsnprintf(text, sizeof text, pattern, values);
    va_end(values);
    return text;
}

std::string toText(const host::Value& value) {
    struct Visitor {
        std::string operator()(bool v) const { return v ? "true" : "false"; }
        std::string operator()(long long v) const { return std::to_string(v); }
        std::string operator()(double v) const { return format("%.3f", v); }
        std::string operator()(const std::string& v) const { return "'" + printable(v) + "'"; }
    };
    return std::visit(Visitor(), value);
}

std::string toText(const std::vector<host::Argument>& arguments) {
    std::string text;
    for (const auto& argument : arguments)
        text += " " + argument.name + "=" + toText(argument.value);
    return text;
}

std::string bar(double fraction, int columns) {
    const int inner = columns - 2;
    const int filled = std::clamp(static_cast<int>(std::lround(fraction * inner)), 0, inner);
    std::string text(static_cast<std::size_t>(inner), ' ');
    text.replace(0, static_cast<std::size_t>(filled), static_cast<std::size_t>(filled), '=');
    return "[" + text + "]";
}

/// "1:02" or "1:00:02".
std::string clockText(double seconds) {
    const auto whole = static_cast<long long>(std::max(0.0, seconds));
    const auto hours = whole / 3600;
    const auto minutes = whole / 60 % 60;
    return hours > 0 ? format("%lld:%02lld:%02lld", hours, minutes, whole % 60)
                     : format("%lld:%02lld", minutes, whole % 60);
}

/// " video 3.2-8.0 audio 3.1-7.9": what the backend holds of each source.
std::string bufferedText(const host::Status& status) {
    std::string text;
    for (const auto& source : status.sources) {
        text += source.kind == host::StreamInfo::Kind::Audio ? " audio" : " video";
        for (const auto& range : source.ranges)
            text += format(" %.1f-%.1f", range.start, range.end);
        if (source.ranges.empty())
            text += " -";
    }
    return text;
}

} // namespace

std::string statusLine(const host::Status& status, int width) {
    constexpr int narrowestBar = 12;
    constexpr int widestBar = 60;
    std::string line =
        format("%-9s %s", host::name(status.state), clockText(status.position).c_str());
    if (status.duration > 0)
        line += " / " + clockText(status.duration);
    std::string size;
    if (status.width > 0 && status.height > 0)
        size = format(" %dx%d", status.width, status.height);
    size += bufferedText(status);

    const int used = static_cast<int>(line.size() + size.size());
    const int room = std::min(width - used - 1, widestBar);
    if (status.duration > 0 && room >= narrowestBar)
        line += " " + bar(status.position / status.duration, room);
    if (static_cast<int>(line.size() + size.size()) <= width)
        line += size;
    return line.substr(0, static_cast<std::size_t>(std::max(0, width)));
}

void Display::log(host::Clock::time_point time, const std::string& text) const {
    ScriptEvents::instance().publishTrace(text);
    if (m_style == Style::Log)
        print(format("%10.6f ", std::chrono::duration<double>(time - m_start).count()) + text +
              "\n");
}

void Display::begin(const std::string& media) {
    m_status = {};
    log(host::Clock::now(), "media " + printable(media));
    if (m_style == Style::Live)
        print(printable(media) + "   (space: pause, arrows: 10 s, q: quit)\n");
}

void Display::show(const host::Record& record) const {
    using Milliseconds = std::chrono::duration<double, std::milli>;
    const std::string text = record.name + toText(record.arguments);
    if (record.kind == host::Record::Kind::Event)
        log(record.time, "event " + text);
    else
        log(record.time,
            "call  " + text + format(" (%.3f ms)", Milliseconds(record.duration).count()));
}

void Display::show(const host::Status& status) {
    if (status.state != m_status.state)
        log(status.time, std::string("state ") + host::name(status.state) +
                             format(" at %.3f s", status.position) + bufferedText(status));
    m_status = status;
    redraw();
}

/// The backend has printed its lines once the element is no more idle.
void Display::redraw() {
    if (m_style != Style::Live || m_status.state == host::State::Idle)
        return;
    print(clearLine + statusLine(m_status, Terminal::width() - 1));
    m_drawn = true;
}

void Display::end() {
    if (m_drawn)
        print(clearLine);
    m_drawn = false;
    m_status.state = host::State::Idle;
}

void Display::summary(const std::string& text) const {
    log(host::Clock::now(), "done  " + text);
    if (m_style == Style::Live)
        print(text + "\n");
}

} // namespace uvahost
