#include "UvaGstIfMedia.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace {

class NoMedia : public UvaGstIfMedia {
public:
    const char* name(GstMessage*) override { return nullptr; }
    int integer(GstMessage*, const char*) override { return 0; }
    Fraction fraction(GstMessage*, const char*) override { return {}; }
    const char* text(GstMessage*, const char*) override { return nullptr; }
    States states(GstElement*) override { return {}; }
    bool logs(Category, Level) override { return false; }
    void log(Category, Level, const char*, const char*, int, const char*) override {}
};

std::atomic<UvaGstIfMedia*> media{nullptr};

/// Never destroyed: late threads still log.
UvaGstIfMedia& noMedia() {
    static UvaGstIfMedia& none = *new NoMedia;
    return none;
}

} // namespace

UvaGstIfMedia& uvaGstIfMedia() {
    UvaGstIfMedia* const set = media.load(std::memory_order_acquire);
    return set ? *set : noMedia();
}

void setUvaGstIfMedia(UvaGstIfMedia* used) {
    media.store(used, std::memory_order_release);
}

void uvaGstIfLog(UvaGstIfMedia::Category category, UvaGstIfMedia::Level level, const char* file,
                 const char* function, int line, const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    uvaGstIfMedia().log(category, level, file, function, line, text);
}
