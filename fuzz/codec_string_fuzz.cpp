// Any text as a codec string, and as the fields of a content type, one a line: a backend answers,
// and never plays what a codec or a size alone rules out.

#include "codec/codecutil.h"
#include "gst_once.h"
#include "backend/gstnox_backend.h"
#include "uva/uva_event.h"

#include <sstream>

namespace {

class DeafClient final : public UVAClient {
public:
    void deliverEvent(UVAEvent* event) override { delete event; }
};

/// The lines in the order of the members; what is left over are codecs.
UVABackend::ContentDescription describe(const std::string& text) {
    UVABackend::ContentDescription d;
    std::istringstream lines(text);
    for (std::string* member : {&d.type, &d.width, &d.height, &d.framerate, &d.bitrate, &d.channels,
                                &d.cryptoblockformat, &d.drmID, &d.drm_robustness})
        std::getline(lines, *member);
    for (std::string codec; std::getline(lines, codec);)
        d.codecs.push_back(codec);
    return d;
}

bool isAtMost(const std::string& text, int limit) {
    int value = 0;
    int one = 0;
    return gst_tools_parse_real(text.c_str(), &value, &one) && one == 1 && value <= limit;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::startGst();
    GstNoxBackend::setLink(uvaGstIfReceiver);
    static DeafClient client;
    static auto& backend = *new GstNoxBackend(UVABackend::VideoElement, &client);
    const auto description = describe({reinterpret_cast<const char*>(data), size});
    const bool playable = backend.canPlayType(description);
    for (const auto& codec : description.codecs)
        require(backend.isCodecSupported(codec.c_str()) || !playable);
    if (!playable)
        return 0;
    const bool any = description.codecs.empty();
    require(isAtMost(description.width, any ? 10240 : 4096));
    require(isAtMost(description.height, any ? 8192 : 2160));
    require(isAtMost(description.channels, 10));
    require(description.type.empty() || backend.isMediaTypeSupported(description.type.c_str()));
    return 0;
}
