#include "tracks.h"

#include "host/media_demuxer.h"

#include <atomic>
#include <utility>

namespace qualify {

namespace {

constexpr double hair = 0.001; // seconds; times of containers are rounded
constexpr std::size_t batchSize = 100;

Track readAll(host::SampleStream& stream) {
    Track track;
    track.info = stream.info();
    std::uint64_t sequence = 0, group = 0;
    for (bool ended = false; !ended;) {
        const auto batch = stream.read(batchSize);
        ended = batch.ended || !batch.error.empty();
        for (const auto& sample : batch.samples) {
            ++sequence;
            if (sample->data().keyFrame)
                group = sequence;
            track.frames.push_back({sequence, group, sample->data()});
        }
    }
    return track;
}

} // namespace

std::vector<host::BufferedFrame> Track::part(double from, double to) const {
    std::vector<host::BufferedFrame> result;
    double group = 0;
    for (const auto& frame : frames) {
        if (frame.sequence == frame.group)
            group = frame.sample.pts;
        if (group >= from - hair && group < to - hair)
            result.push_back(frame);
    }
    return result;
}

Track Track::numberedFrom(std::uint64_t sequence) const {
    auto track = *this;
    for (auto& frame : track.frames) {
        frame.sequence += sequence;
        frame.group += sequence;
    }
    return track;
}

std::vector<Track> loadTracks(const Clip& clip) {
    return loadTracks(clip, [](auto stream) { return stream; });
}

std::vector<Track> loadTracks(const Clip& clip, const StreamChange& change) {
    const std::atomic<bool> cancelled{false};
    std::vector<Track> tracks;
    for (auto& stream : host::openMedia(clip.path, cancelled).streams)
        tracks.push_back(readAll(*change(std::move(stream))));
    return tracks;
}

Track trackOf(const std::vector<Track>& tracks, host::StreamInfo::Kind kind) {
    for (const auto& track : tracks)
        if (track.info.kind == kind)
            return track;
    return {};
}

Buffers::Buffers(const std::vector<Track>& tracks) {
    for (const auto& track : tracks)
        m_buffers.push_back(std::make_unique<host::TrackBuffer>(track.info));
}

std::vector<std::unique_ptr<host::SampleStream>> Buffers::streams() {
    std::vector<std::unique_ptr<host::SampleStream>> result;
    for (const auto& buffer : m_buffers)
        result.push_back(buffer->stream());
    return result;
}

void Buffers::append(const std::vector<Track>& tracks, double from, double to) {
    for (std::size_t i = 0; i < tracks.size(); ++i)
        append(i, tracks[i].part(from, to));
}

void Buffers::append(std::size_t index, std::vector<host::BufferedFrame> frames) {
    m_buffers[index]->add(std::move(frames));
}

void Buffers::end() {
    for (const auto& buffer : m_buffers)
        buffer->setEnded(true);
}

} // namespace qualify
