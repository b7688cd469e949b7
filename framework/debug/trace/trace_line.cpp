#include "debug/trace/trace_line.h"

#include "debug/trace/trace_clock.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <pthread.h>

namespace {

/// The thread's identifier as lines show it: the low 32 bits.
unsigned callingThread() {
    return static_cast<unsigned>(pthread_self());
}

/// Writes the last `count` digits of a number.
template <unsigned Base>
void putDigits(char* digits, int count, unsigned number) {
    while (count > 0) {
        digits[--count] = "0123456789abcdef"[number % Base];
        number /= Base;
    }
}

} // namespace

size_t formatTraceTimestamp(char* text, size_t size) {
    const timeval now = traceClock().now();
    tm local{};
    const time_t seconds = now.tv_sec;
    if (!localtime_r(&seconds, &local))
        return 0;
    const int length =
        snprintf(text, size, "%d-%02d-%02d %02d:%02d:%02d.%03ld ", local.tm_year + 1900,
                 local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                 static_cast<long>(now.tv_usec / 1000));
    return length < 0 ? 0 : std::min(static_cast<size_t>(length), size - 1);
}

void TraceLine::addTimestamp() {
    m_length += formatTraceTimestamp(m_text + m_length, size - m_length);
}

void TraceLine::addHeader(uint16_t counter, const char* prefix, const char* colour) {
    // By hand: a formatted print would cost as much as the message itself.
    char header[] = "[00000] 00000000 ";
    putDigits<10>(header + 1, 5, counter);
    putDigits<16>(header + 8, 8, callingThread());
    addText(size, header);
    addText(size, prefix);
    addText(size, colour);
}

bool TraceLine::addMessage(size_t room, const char* format, va_list arguments) {
    const size_t left = room - m_length;
    const int length = vsnprintf(m_text + m_length, left, format, arguments);
    if (length < 0) {
        m_text[m_length] = '\0';
        addText(room, "(message cannot be formatted, check its format and arguments) ");
        addText(room, format);
        return m_length + 1 >= room;
    }
    m_length += std::min(static_cast<size_t>(length), left - 1);
    return static_cast<size_t>(length) >= left;
}

void TraceLine::addText(size_t room, const char* text) {
    if (m_length + 1 >= room)
        return;
    const size_t length = strnlen(text, room - m_length - 1);
    memcpy(m_text + m_length, text, length);
    m_length += length;
    m_text[m_length] = '\0';
}

void TraceLine::endWithNewline() {
    m_text[m_length - 1] = '\n';
}
