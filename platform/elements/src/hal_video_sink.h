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
    static void onShown(GstElement* output, GstBuffer* picture, GstPad* pad, gpointer sink);
    static void onStill(GstElement* output, GstBuffer* picture, GstPad* pad, gpointer sink);
    static GstPadProbeReturn onDeviceBuffer(GstPad* pad, GstPadProbeInfo* info, gpointer sink);
    void applyVisible();

    std::atomic<bool> m_visible{true};
    std::atomic<bool> m_isCounted{false};  // the picture that the silent output stands at
    std::atomic<bool> m_isOnDevice{false}; // the newest one, which has not been counted
};

} // namespace noxelements

GType gst_hal_video_sink_get_type();

#endif
