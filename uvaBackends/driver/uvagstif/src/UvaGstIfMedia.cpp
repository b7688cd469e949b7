#include "UvaGstIfMedia.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <utility>

namespace {

constexpr UvaGstIfMedia noMedia{
    [](UvaGstIfMedia::Category, UvaGstIfMedia::Level) { return false; },
    [](const UvaGstIfMedia::Line&) {},
    [](GstElement*) { return UvaGstIfMedia::States{}; },
};

std::atomic<const UvaGstIfMedia*> media{&noMedia};
thread_local std::vector<UvaGstIfMedia::Line>* heldBack = nullptr;

} // namespace

const UvaGstIfMedia& uvaGstIfMedia() {
    return *media.load(std::memory_order_acquire);
}

void setUvaGstIfMedia(const UvaGstIfMedia& used) {
    media.store(&used, std::memory_order_release);
}

void uvaGstIfLog(UvaGstIfMedia::Category category, UvaGstIfMedia::Level level, const char* file,
                 const char* function, int line, const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    UvaGstIfMedia::Line made{category, level, file, function, line, text};
    if (heldBack)
        heldBack->push_back(std::move(made));
    else
        uvaGstIfMedia().log(made);
}

UvaGstIfLogLater::UvaGstIfLogLater() {
    heldBack = &m_lines;
}

UvaGstIfLogLater::~UvaGstIfLogLater() {
    heldBack = nullptr;
    for (const auto& line : m_lines)
        uvaGstIfMedia().log(line);
}
