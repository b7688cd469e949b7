#ifndef UTIL_TEXT_OUTPUT_H
#define UTIL_TEXT_OUTPUT_H

/// Writes a text to standard output and flushes it. Survives a reader that is gone: the text is
/// lost, SIGPIPE is not raised. Not a cancellation point. Thread-safe; each text goes out whole.
void printToStdout(const char* text);

/// printToStdout for a formatted text of at most 1999 characters.
void printfToStdout(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Sends a text to syslog. Not a cancellation point. Thread-safe.
void sendToSyslog(int priority, const char* text);

#endif
