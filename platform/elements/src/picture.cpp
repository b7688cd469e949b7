#include "picture.h"

#include <gst/video/video.h>

namespace noxelements {

namespace {

constexpr int largestSide = 8192; // pixels; bounds what a caller can make us allocate

struct FreeConverter {
    void operator()(GstVideoConverter* converter) const { gst_video_converter_free(converter); }
};

/// A buffer mapped as a video frame for a scope.
class MappedFrame {
public:
    MappedFrame(const GstVideoInfo& info, GstBuffer* buffer, GstMapFlags flags)
        : m_mapped(gst_video_frame_map(&m_frame, &info, buffer, flags)) {}
    ~MappedFrame() {
        if (m_mapped)
            gst_video_frame_unmap(&m_frame);
    }
    MappedFrame(const MappedFrame&) = delete;
    MappedFrame& operator=(const MappedFrame&) = delete;

    explicit operator bool() const { return m_mapped; }
    GstVideoFrame* get() { return &m_frame; }

private:
    GstVideoFrame m_frame{};
    bool m_mapped;
};

} // namespace

bool convertPicture(GstSample* sample, nox::Picture& picture, int width, int height) {
    GstVideoInfo from;
    auto* caps = gst_sample_get_caps(sample);
    auto* buffer = gst_sample_get_buffer(sample);
    if (!caps || !buffer || !gst_video_info_from_caps(&from, caps))
        return false;
    if (width == 0 && height == 0) {
        width = from.width;
        height = from.height;
    }
    if (width <= 0 || height <= 0 || width > largestSide || height > largestSide)
        return false;
    GstVideoInfo to;
    if (!gst_video_info_set_format(&to, GST_VIDEO_FORMAT_RGBA, static_cast<guint>(width),
                                   static_cast<guint>(height)))
        return false;
    to.fps_n = from.fps_n;
    to.fps_d = from.fps_d;

    std::vector<std::uint8_t> rgba(GST_VIDEO_INFO_SIZE(&to));
    const GstPtr<GstBuffer> target(gst_buffer_new_wrapped_full(
        GstMemoryFlags{}, rgba.data(), rgba.size(), 0, rgba.size(), nullptr, nullptr));
    MappedFrame source(from, buffer, GST_MAP_READ);
    MappedFrame result(to, target.get(), GST_MAP_WRITE);
    if (!source || !result)
        return false;
    // The whole picture fills the whole target: whoever asks for a size has its shape in mind.
    auto* options = gst_structure_new("options", GST_VIDEO_CONVERTER_OPT_ALPHA_MODE,
                                      GST_TYPE_VIDEO_ALPHA_MODE, GST_VIDEO_ALPHA_MODE_SET, nullptr);
    const std::unique_ptr<GstVideoConverter, FreeConverter> converter(
        gst_video_converter_new(&from, &to, options));
    if (!converter)
        return false;
    gst_video_converter_frame(converter.get(), source.get(), result.get());
    picture.width = width;
    picture.height = height;
    picture.rgba = std::move(rgba);
    return true;
}

} // namespace noxelements
