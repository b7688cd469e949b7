#include "fragmented_stream.h"

#include "sample_order.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace host {

namespace {

constexpr std::size_t pieceSize = 64 * 1024;

} // namespace

FragmentedStream::FragmentedStream(std::unique_ptr<FileBytes> bytes,
                                   std::shared_ptr<Interruption> interruption,
                                   std::shared_ptr<const FragmentedFile> file,
                                   const FragmentedFile::Track& track, double timeOffset)
    : m_bytes(std::move(bytes)), m_interruption(std::move(interruption)), m_file(std::move(file)),
      m_track(track), m_timeOffset(timeOffset), m_info(track.info),
      m_parser(*this, StreamRules::File) {
    m_info.duration = std::max(m_info.duration - timeOffset, 0.0);
    startAt({0, m_file->movies.front().position, 0});
}

void FragmentedStream::onInit(InitSegment segment) {
    const auto found = std::find_if(
        segment.tracks.begin(), segment.tracks.end(), [this](const TrackDescription& track) {
            return track.info.kind == m_info.kind && !track.info.mimeType.empty();
        });
    if (found == segment.tracks.end() || found->info.codec != m_info.codec) {
        m_end = "the movie ('moov') in front of byte " + std::to_string(m_at) +
                " has other codecs; play it as a file of its own";
        return;
    }
    m_number = found->id;
    m_isNewMovie = true;
}

void FragmentedStream::onFrames(std::vector<CodedFrame> frames) {
    for (auto& frame : frames) {
        if (frame.track != m_number || m_end)
            continue;
        auto& sample = frame.sample;
        if (std::exchange(m_isNewMovie, false) && sample.dts <= m_latest) {
            m_end = "what begins anew ('moov') in front of byte " + std::to_string(m_at) +
                    " does not go on in time; play it as a file of its own";
            return;
        }
        m_latest = sample.dts;
        sample.pts -= m_timeOffset;
        sample.dts -= m_timeOffset;
        m_ahead.push_back(std::move(sample));
    }
}

/// A piece of the file.
void FragmentedStream::feed() {
    const std::shared_ptr<std::uint8_t> piece(new std::uint8_t[pieceSize],
                                              std::default_delete<std::uint8_t[]>());
    const auto size = m_bytes->read(m_at, piece.get(), pieceSize);
    m_at += size;
    auto fault = m_parser.append(piece, size);
    if (!fault.empty())
        m_end = std::move(fault);
    else if (!m_bytes->error().empty())
        m_end = m_bytes->error();
    else if (size < pieceSize && !m_end)
        m_end = m_parser.isBetweenBoxes()
                    ? ""
                    : "the media ends before its last sample; it is truncated";
}

std::optional<SampleData> FragmentedStream::next() {
    while (m_ahead.empty() && !m_end)
        feed();
    if (m_ahead.empty())
        return std::nullopt;
    auto sample = std::move(m_ahead.front());
    m_ahead.pop_front();
    return sample;
}

SampleStream::Batch FragmentedStream::read(std::size_t count) {
    Batch batch;
    while (batch.samples.size() < count) {
        auto sample = next();
        if (!sample)
            break;
        if (m_info.kind == StreamInfo::Kind::Video || sample->pts >= 0 || moveIntoMedia(*sample))
            batch.samples.push_back(std::make_unique<Sample>(std::move(*sample)));
    }
    if (m_ahead.empty() && m_end) {
        batch.ended = m_end->empty();
        batch.error = *m_end;
    }
    return batch;
}

void FragmentedStream::startAt(const FragmentedFile::Start& start) {
    m_ahead.clear();
    m_end.reset();
    m_latest = -std::numeric_limits<double>::infinity();
    const auto& movie = m_file->movies[start.movie];
    m_at = movie.position;
    m_parser.continueAt(m_at);
    if (start.position <= movie.position)
        return;
    const std::shared_ptr<std::uint8_t> bytes(new std::uint8_t[movie.size],
                                              std::default_delete<std::uint8_t[]>());
    const auto size = m_bytes->read(m_at, bytes.get(), movie.size);
    auto fault = m_parser.append(bytes, size);
    if (fault.empty() && size < movie.size)
        fault = m_bytes->error().empty() ? "it is another file than before" : m_bytes->error();
    if (!fault.empty())
        m_end = std::move(fault);
    m_at = start.position;
    m_parser.continueAt(m_at);
}

/// From the latest key frame that is not behind the target; from the first there is when none is.
/// Answers whether there was one.
bool FragmentedStream::readAheadTo(double target) {
    auto [group, found] = startFor<SampleData>([this] { return next(); }, target);
    std::move(m_ahead.begin(), m_ahead.end(), std::back_inserter(group));
    m_ahead = std::move(group);
    return found;
}

std::string FragmentedStream::seek(double target) {
    target = boundedTarget(target);
    const auto& starts = m_track.starts;
    const auto isBehind = [&](const FragmentedFile::Start& start) {
        return start.time - m_timeOffset > target + seekTolerance;
    };
    auto start =
        m_file->hasTimes ? std::find_if(starts.begin(), starts.end(), isBehind) : starts.begin();
    while (start != starts.begin()) {
        --start;
        startAt(*start);
        if (readAheadTo(target))
            return {};
        if (m_end && !m_end->empty() && m_ahead.empty())
            return *m_end;
    }
    startAt({0, m_file->movies.front().position, 0});
    readAheadTo(target);
    if (!m_ahead.empty() || !m_end)
        return {};
    return m_end->empty() ? "there is no key frame to start from" : *m_end;
}

} // namespace host
