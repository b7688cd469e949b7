#ifndef TRACE_LINE_H
#define TRACE_LINE_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>

/// Puts a trace line together in a buffer of 2000 bytes that somebody else owns. The text is
/// terminated at all times. Bound to one thread.
class TraceLine {
public:
    static constexpr size_t size = 2000;

    /// Starts with the empty text.
    explicit TraceLine(char* text) : m_text(text) { m_text[0] = '\0'; }

    /// Adds the local time.
    void addTimestamp();

    /// Adds "[counter] thread prefix" and the colour start.
    void addHeader(uint16_t counter, const char* prefix, const char* colour);

    /// Adds the message, in what is left of the first `room` bytes with its terminator. True when
    /// it was cut. A message that cannot be formatted is replaced by its format, said to be one.
    bool addMessage(size_t room, const char* format, va_list arguments)
        __attribute__((format(printf, 3, 0)));

    /// Adds what fits into the first `room` bytes with its terminator.
    void addText(size_t room, const char* text);

    /// Makes the last character a line end.
    void endWithNewline();

private:
    char* m_text;
    size_t m_length = 0;
};

/// Writes the local time as "2026-01-31 23:59:59.999 " with its terminator into at most `size`
/// bytes. Returns the number of characters, or 0 if it could not be formatted.
size_t formatTraceTimestamp(char* text, size_t size);

#endif
