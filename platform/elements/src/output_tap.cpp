#include "output_tap.h"

#include "nox/screen.h"

#include <gst/audio/audio.h>
#include <gst/base/gstbasesink.h>
#include <gst/video/video.h>

#include <limits>

namespace noxelements {

namespace {

std::string nameOf(GstBin* sink) {
    const GstPtr<char> name(gst_object_get_name(GST_OBJECT(sink)));
    return name.get();
}

/// Seconds.
double streamTime(GstPad* pad, GstBuffer* buffer) {
    const GstPtr<GstElement> output(gst_pad_get_parent_element(pad));
    const auto time = output ? gst_segment_to_stream_time(&GST_BASE_SINK(output.get())->segment,
                                                          GST_FORMAT_TIME, GST_BUFFER_PTS(buffer))
                             : GST_CLOCK_TIME_NONE;
    return GST_CLOCK_TIME_IS_VALID(time) ? static_cast<double>(time) / GST_SECOND
                                         : std::numeric_limits<double>::quiet_NaN();
}

/// The upper 8 bits of a component.
std::vector<std::uint8_t> copyComponent(const GstVideoFrame& frame, int component) {
    const auto* format = frame.info.finfo;
    const auto part = static_cast<guint>(component);
    const auto width = static_cast<std::size_t>(GST_VIDEO_FRAME_COMP_WIDTH(&frame, part));
    const int height = GST_VIDEO_FRAME_COMP_HEIGHT(&frame, part);
    const auto step = static_cast<std::size_t>(GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, part));
    // Of components of more than a byte, which are little-endian here.
    const int depth =
        GST_VIDEO_FRAME_COMP_DEPTH(&frame, part) + GST_VIDEO_FORMAT_INFO_SHIFT(format, part);
    std::vector<std::uint8_t> samples;
    samples.reserve(width * static_cast<std::size_t>(height));
    const auto* row = static_cast<const guint8*>(GST_VIDEO_FRAME_COMP_DATA(&frame, part));
    for (int y = 0; y < height; ++y, row += GST_VIDEO_FRAME_COMP_STRIDE(&frame, part)) {
        if (step == 1 && depth == 8) {
            samples.insert(samples.end(), row, row + width);
            continue;
        }
        for (std::size_t x = 0; x < width; ++x)
            samples.push_back(
                depth > 8 ? static_cast<guint8>(GST_READ_UINT16_LE(row + x * step) >> (depth - 8))
                          : row[x * step]);
    }
    return samples;
}

/// False for what is no YUV or grey picture.
bool copyComponents(const GstVideoFrame& frame, nox::ShownPicture& picture) {
    if (GST_VIDEO_FORMAT_INFO_IS_RGB(frame.info.finfo))
        return false;
    picture.width = GST_VIDEO_FRAME_WIDTH(&frame);
    picture.height = GST_VIDEO_FRAME_HEIGHT(&frame);
    picture.luma = copyComponent(frame, GST_VIDEO_COMP_Y);
    if (GST_VIDEO_FORMAT_INFO_IS_GRAY(frame.info.finfo))
        return true;
    picture.chromaWidth = GST_VIDEO_FRAME_COMP_WIDTH(&frame, GST_VIDEO_COMP_U);
    picture.chromaHeight = GST_VIDEO_FRAME_COMP_HEIGHT(&frame, GST_VIDEO_COMP_U);
    picture.cb = copyComponent(frame, GST_VIDEO_COMP_U);
    picture.cr = copyComponent(frame, GST_VIDEO_COMP_V);
    return true;
}

void copySound(GstAudioBuffer& audio, nox::PlayedSound& sound) {
    const auto& info = audio.info;
    const bool planar = info.layout != GST_AUDIO_LAYOUT_INTERLEAVED;
    const std::size_t step = planar ? 1 : static_cast<std::size_t>(info.channels);
    const auto count = audio.n_samples * step;
    const auto unpack = [&](auto zero, double scale) {
        std::vector<decltype(zero)> samples(count, zero);
        info.finfo->unpack_func(info.finfo, GST_AUDIO_PACK_FLAG_NONE, samples.data(),
                                audio.planes[0], static_cast<gint>(count));
        for (std::size_t i = 0; i < count; i += step)
            sound.samples.push_back(static_cast<float>(samples[i] * scale));
    };
    if (info.finfo->unpack_format == GST_AUDIO_FORMAT_F64)
        unpack(gdouble{0}, 1.0);
    else
        unpack(gint32{0}, 1.0 / 2147483648.0);
}

} // namespace

void tapPicture(GstBin* sink, GstBuffer* picture, GstPad* pad, bool still) {
    auto& screen = nox::Screen::instance();
    if (!screen.isTapped())
        return;
    const GstPtr<GstCaps> caps(gst_pad_get_current_caps(pad));
    GstVideoInfo info;
    GstVideoFrame frame;
    if (!caps || !gst_video_info_from_caps(&info, caps.get()) ||
        !gst_video_frame_map(&frame, &info, picture, GST_MAP_READ))
        return;
    nox::ShownPicture shown{nameOf(sink), streamTime(pad, picture), still, 0, 0, {}, 0, 0, {}, {}};
    const bool copied = copyComponents(frame, shown);
    gst_video_frame_unmap(&frame);
    if (copied)
        screen.pictureShown(std::move(shown));
}

void tapSound(GstBin* sink, GstBuffer* sound, GstPad* pad) {
    auto& screen = nox::Screen::instance();
    if (!screen.isTapped())
        return;
    const GstPtr<GstCaps> caps(gst_pad_get_current_caps(pad));
    GstAudioInfo info;
    GstAudioBuffer audio;
    if (!caps || !gst_audio_info_from_caps(&info, caps.get()) ||
        !gst_audio_buffer_map(&audio, &info, sound, GST_MAP_READ))
        return;
    nox::PlayedSound played{nameOf(sink), streamTime(pad, sound), info.rate, {}};
    copySound(audio, played);
    gst_audio_buffer_unmap(&audio);
    screen.soundPlayed(std::move(played));
}

} // namespace noxelements
