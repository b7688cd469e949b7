#ifndef NOXELEMENTS_HAL_VIDEO_SINK_H
#define NOXELEMENTS_HAL_VIDEO_SINK_H

#include "hal_sink.h"

#include "nox/screen.h"

namespace noxelements {

/// "halvideosink": shows pictures, and shows them to the screen that asks for them.
class HalVideoSink final : public HalSink, public nox::VideoPlane {
public:
    explicit HalVideoSink(GstBin* bin);

    void handleMessage(GstMessage* message) override;

    bool grab(nox::Picture& picture, int width, int height) override;
    void setVisible(bool visible) override;

protected:
    void activated() override;
    void deactivated() override;
    GstPtr<GstElement> makeDeviceOutput() override;
    void deviceOutputAdded(GstElement* output) override;
    GstPtr<GstStructure> describe(const GstCaps* decoded, const MediaFormat& format) override;

private:
    void applyVisible();

    std::atomic<bool> m_visible{true};
};

} // namespace noxelements

GType gst_hal_video_sink_get_type();

#endif
