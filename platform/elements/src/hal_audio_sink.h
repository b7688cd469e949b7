#ifndef NOXELEMENTS_HAL_AUDIO_SINK_H
#define NOXELEMENTS_HAL_AUDIO_SINK_H

#include "hal_sink.h"

#include "nox/screen.h"

namespace noxelements {

/// "halaudiosink": plays sound, as loud as the screen says.
class HalAudioSink final : public HalSink, public nox::AudioOutput {
public:
    explicit HalAudioSink(GstBin* bin);

    void setVolume(double volume) override;

    /// What the digital output gets; thread-safe. There is none here, so it is only remembered.
    std::atomic<unsigned> outputDdp{0};

protected:
    void activated() override;
    void deactivated() override;
    GstPtr<GstElement> makeDeviceOutput() override;
    void deviceOutputAdded(GstElement* output) override;
    GstPtr<GstStructure> describe(const GstCaps* decoded, const MediaFormat& format) override;

private:
    static void onPlayed(GstElement* output, GstBuffer* sound, GstPad* pad, gpointer sink);
    void applyVolume();

    std::atomic<double> m_volume{1.0};
};

} // namespace noxelements

GType gst_hal_audio_sink_get_type();

#endif
