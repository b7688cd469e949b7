#ifndef UVA_HOST_DISPLAY_H
#define UVA_HOST_DISPLAY_H

#include "host/record.h"
#include "host/status.h"

#include <string>

namespace uvahost {

/// What the user sees of the playback on standard output.
class Display {
public:
    virtual ~Display();

    virtual void begin(const std::string& media) = 0;
    virtual void show(const host::Record& record) = 0;
    virtual void show(const host::Status& status) = 0;

    /// The backend is about to be released: it prints lines of its own.
    virtual void end() = 0;

    /// What came of it, one line.
    virtual void summary(const std::string& text) = 0;

    /// The window changed, or the screen was somebody else's for a while.
    virtual void redraw() = 0;
};

/// Prints nothing.
class SilentDisplay final : public Display {
public:
    void begin(const std::string&) override {}
    void show(const host::Record&) override {}
    void show(const host::Status&) override {}
    void end() override {}
    void summary(const std::string&) override {}
    void redraw() override {}
};

/// A line an event, with the seconds since the program's start.
class LogDisplay final : public Display {
public:
    void begin(const std::string& media) override;
    void show(const host::Record& record) override;
    void show(const host::Status& status) override;
    void end() override;
    void summary(const std::string& text) override;
    void redraw() override {}

private:
    void line(host::Clock::time_point time, const std::string& text);

    const host::Clock::time_point m_start = host::Clock::now();
    host::State m_state = host::State::Idle;
};

/// One line that is rewritten in place.
class LiveDisplay final : public Display {
public:
    explicit LiveDisplay(bool withKeys) : m_withKeys(withKeys) {}
    ~LiveDisplay() override;

    void begin(const std::string& media) override;
    void show(const host::Record&) override {}
    void show(const host::Status& status) override;
    void end() override;
    void summary(const std::string& text) override;
    void redraw() override;

private:
    const bool m_withKeys;
    bool m_drawn = false;
    host::Status m_status;
};

/// The status in at most `width` columns; what matters least goes first when it is narrow.
std::string statusLine(const host::Status& status, int width);

/// "1:02" or "1:00:02".
std::string clockText(double seconds);

/// The text without bytes that would steer a terminal.
std::string printable(const std::string& text);

} // namespace uvahost

#endif
