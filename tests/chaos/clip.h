#ifndef CHAOS_CLIP_H
#define CHAOS_CLIP_H

#include "host/sample_stream.h"

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace chaos {

/// A clip, taken apart once: what its tracks are fed from.
struct Clip {
    struct Track {
        host::StreamInfo info;
        std::vector<host::SampleData> samples; ///< in decoding order

        /// Of the last sample at or before this time from which decoding can start.
        std::size_t keyFrameBefore(double seconds) const;
    };
    std::vector<Track> tracks;
    double duration = 0; ///< seconds

    static const Clip& load(const std::string& path);
};

/// A sample that is deleted once, whoever does it.
class CountedSample final : public UVASample {
public:
    static int alive();

    explicit CountedSample(host::SampleData data);
    ~CountedSample() override;

    const std::uint8_t* payload() const override { return look().payload(); }
    std::size_t payloadSize() const override { return look().payloadSize(); }
    double pts() const override { return look().pts(); }
    double dts() const override { return look().dts(); }
    double duration() const override { return look().duration(); }
    const UVAStreamConfig* config() const override { return look().config(); }
    const std::vector<Subsample>& subsamples() const override { return look().subsamples(); }

private:
    /// Ends the process when it is gone already.
    const host::Sample& look() const;

    const host::Sample m_sample;
    std::atomic<std::uint32_t> m_mark;
};

} // namespace chaos

#endif
