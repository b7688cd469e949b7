#ifndef UVA_HOST_DISPLAY_H
#define UVA_HOST_DISPLAY_H

#include "host/record.h"
#include "host/status.h"

#include <string>

namespace uvahost {

/// What the user sees of the playback on standard output.
class Display {
public:
    enum class Style {
        Silent,
        Log, ///< a line an event, with the seconds since the program's start
        Live ///< one line that is rewritten in place
    };

    explicit Display(Style style) : m_style(style) {}
    ~Display() { end(); }

    Display(const Display&) = delete;
    Display& operator=(const Display&) = delete;

    void begin(const std::string& media);
    void show(const host::Record& record) const;
    void show(const host::Status& status);

    /// The backend is about to be released: it prints lines of its own.
    void end();

    /// What came of it, one line.
    void summary(const std::string& text) const;

    /// The window changed, or the screen was somebody else's for a while.
    void redraw();

private:
    void log(host::Clock::time_point time, const std::string& text) const;

    const Style m_style;
    const host::Clock::time_point m_start = host::Clock::now();
    host::Status m_status;
    bool m_drawn = false;
};

/// The status in at most `width` columns; what matters least goes first when it is narrow.
std::string statusLine(const host::Status& status, int width);

} // namespace uvahost

#endif
