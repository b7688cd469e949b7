#include "debug/trace/output_capture.h"

#include <algorithm>

namespace {

thread_local OutputCapture* innermostCapture = nullptr;

} // namespace

OutputCapture::OutputCapture(size_t most) : m_most(most), m_outer(innermostCapture) {
    m_text.reserve(most);
    innermostCapture = this;
}

OutputCapture::~OutputCapture() {
    innermostCapture = m_outer;
}

OutputCapture* OutputCapture::current() {
    return innermostCapture;
}

void OutputCapture::add(std::string_view text) {
    m_text += text.substr(0, std::min(text.size(), m_most - m_text.size()));
}
