#include "window.h"

#include "calls.h"

namespace host {

namespace {

constexpr int screenWidth = 1280;
constexpr int screenHeight = 720;

} // namespace

void setWindow(Calls& calls, const UVABackend::Rect& window) {
    calls.operate("setLogicalScreenSize",
                  {{"width", static_cast<long long>(screenWidth)},
                   {"height", static_cast<long long>(screenHeight)}},
                  [](UVAMediaBackend& backend) {
                      return backend.setLogicalScreenSize(screenWidth, screenHeight);
                  });
    calls.operate(
        "setVideoWindowAndClip",
        {{"x", static_cast<long long>(window.x)},
         {"y", static_cast<long long>(window.y)},
         {"width", static_cast<long long>(window.width)},
         {"height", static_cast<long long>(window.height)}},
        [&](UVAMediaBackend& backend) {
            return backend.setVideoWindowAndClip(window, {0, 0, screenWidth, screenHeight});
        });
}

MediaElement::Capture capture(Calls& calls) {
    Picture picture;
    double ratio = 1.0;
    calls.operate("getNativeSize", {}, [&](UVAMediaBackend& backend) {
        return backend.getNativeSize(picture.width, picture.height, ratio);
    });
    if (picture.width <= 0 || picture.height <= 0)
        return {{}, "the media has shown no picture"};
    const int started =
        calls.operate("startCapture",
                      {{"width", static_cast<long long>(picture.width)},
                       {"height", static_cast<long long>(picture.height)}},
                      [&](UVAMediaBackend& backend) {
                          return backend.startCapture(picture.width, picture.height);
                      });
    if (started != UVABackend::Success)
        return {{}, "the backend cannot capture pictures of this size"};

    picture.rgba.resize(static_cast<std::size_t>(picture.width) *
                        static_cast<std::size_t>(picture.height) * 4);
    const int fetched = calls.operate("getVideoFrame", {}, [&](UVAMediaBackend& backend) {
        return backend.getVideoFrame(picture.rgba.data(),
                                     static_cast<unsigned int>(picture.rgba.size()));
    });
    calls.operate("stopCapture", {}, &UVAMediaBackend::stopCapture);
    if (fetched == UVABackend::NotAvailable)
        return {{}, "no picture is on screen"};
    if (fetched != UVABackend::Success)
        return {{},
                "the backend gave no picture (getVideoFrame answered " + std::to_string(fetched) +
                    ")"};
    return {std::move(picture), {}};
}

} // namespace host
