#include "clip.h"

#include "host/media_demuxer.h"
#include "walk.h"

#include <algorithm>

namespace chaos {

namespace {

constexpr std::uint32_t isAlive = 0x616c6976, isGone = 0x676f6e65;
std::atomic<int> living{0};

} // namespace

std::size_t Clip::Track::keyFrameBefore(double seconds) const {
    std::size_t found = 0;
    for (std::size_t i = 0; i < samples.size(); ++i)
        if (samples[i].keyFrame && samples[i].pts <= seconds)
            found = i;
    return found;
}

const Clip& Clip::load(const std::string& path) {
    static const Clip clip = [&] {
        const std::atomic<bool> never{false};
        auto media = host::openMedia(path, never);
        require(!media.streams.empty(), path + ": " + media.error);
        Clip read;
        for (auto& stream : media.streams) {
            Track track{stream->info(), {}};
            for (bool ended = false; !ended;) {
                auto batch = stream->read(1000);
                require(batch.error.empty(), path + ": " + batch.error);
                ended = batch.ended;
                for (const auto& sample : batch.samples)
                    track.samples.push_back(sample->data());
            }
            read.duration = std::max(read.duration, track.info.duration);
            read.tracks.push_back(std::move(track));
        }
        return read;
    }();
    return clip;
}

int CountedSample::alive() {
    return living;
}

CountedSample::CountedSample(host::SampleData data) : m_sample(std::move(data)), m_mark(isAlive) {
    ++living;
}

CountedSample::~CountedSample() {
    require(m_mark.exchange(isGone) == isAlive, "a sample is deleted twice");
    --living;
}

const host::Sample& CountedSample::look() const {
    require(m_mark == isAlive, "a sample is used after it was deleted");
    return m_sample;
}

} // namespace chaos
