#ifndef OUTPUT_CAPTURE_H
#define OUTPUT_CAPTURE_H

#include <cstddef>
#include <string>
#include <string_view>

/// Takes what the calling thread prints without header (FormattedStringToStdout, StreamToStdout:
/// listings, command replies) to itself, for a scope. Traces go where they go. The innermost takes
/// all. Bound to its thread.
class OutputCapture {
public:
    /// What is longer than that many bytes is cut.
    explicit OutputCapture(size_t most);
    ~OutputCapture();
    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;

    const std::string& text() const { return m_text; }

    /// The calling thread's, or null.
    static OutputCapture* current();
    /// Takes no heap memory.
    void add(std::string_view text);

private:
    const size_t m_most;
    std::string m_text;
    OutputCapture* const m_outer;
};

#endif
