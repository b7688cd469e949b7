#include "av_stream.h"

#include "packet_protection.h"
#include "sample_order.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <utility>

namespace host {

namespace {

constexpr double unknownTime = std::numeric_limits<double>::quiet_NaN();

struct FreePacket {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

std::int64_t timestampOf(const AVPacket& packet) {
    return packet.dts == AV_NOPTS_VALUE ? packet.pts : packet.dts;
}

std::vector<std::uint8_t> extradataOf(const AVStream& stream) {
    const auto& parameters = *stream.codecpar;
    return {parameters.extradata, parameters.extradata + parameters.extradata_size};
}

std::string timeText(double seconds) {
    std::array<char, 32> text = {};
    std::snprintf(text.data(), text.size(), "%.3f s", seconds);
    return text.data();
}

/// NAL units behind start codes.
bool isByteStream(const UVAStreamConfig& config) {
    return config.codecData == nullptr && (config.codec == UVAStreamConfig::CODEC_H264 ||
                                           config.codec == UVAStreamConfig::CODEC_H265);
}

/// The first start code of an access unit has four bytes, and libavformat may leave their first
/// zero at the end of the access unit before: a parser would take this one to begin there, at the
/// other one's time. No NAL unit ends with a zero.
void takeAccessUnit(const std::shared_ptr<const AVPacket>& packet, const std::uint8_t* bytes,
                    std::size_t size, SampleData& sample) {
    static constexpr std::uint8_t shortStartCode[] = {0, 0, 1};
    while (size > 0 && bytes[size - 1] == 0)
        --size;
    sample.size = size;
    const bool cut = size >= std::size(shortStartCode) &&
                     std::equal(std::begin(shortStartCode), std::end(shortStartCode), bytes);
    if (!cut) {
        sample.payload = {packet, bytes};
        return;
    }
    const auto unit = std::make_shared<std::vector<std::uint8_t>>(size + 1);
    std::copy_n(bytes, size, unit->begin() + 1);
    sample.payload = {unit, unit->data()};
    sample.size = unit->size();
}

} // namespace

std::unique_ptr<AvStream> AvStream::make(std::unique_ptr<AvInput> input, int index,
                                         double timeOffset, std::string& error) {
    const auto& stream = *input->context()->streams[index];
    auto format = makeStreamFormat(stream, extradataOf(stream), error);
    if (format == nullptr)
        return nullptr;
    return std::unique_ptr<AvStream>(
        new AvStream(std::move(input), index, timeOffset, std::move(format)));
}

AvStream::AvStream(std::unique_ptr<AvInput> input, int index, double timeOffset,
                   SharedFormat format)
    : m_input(std::move(input)), m_index(index), m_codec(stream().codecpar->codec_id),
      m_timeOffset(timeOffset), m_keyId(matroskaKeyId(stream())), m_format(std::move(format)) {
    const auto& parameters = *stream().codecpar;
    m_info.kind = parameters.codec_type == AVMEDIA_TYPE_AUDIO ? StreamInfo::Kind::Audio
                                                              : StreamInfo::Kind::Video;
    m_info.mimeType = mediaSourceType(m_codec);
    m_info.codec = avcodec_get_name(m_codec);
    m_info.duration = endOfStream();
    readOnly();
    startReading();
}

/// The packets of this stream.
void AvStream::readOnly() {
    const auto& context = *m_input->context();
    for (unsigned int i = 0; i < context.nb_streams; ++i)
        context.streams[i]->discard =
            i == static_cast<unsigned int>(m_index) ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
}

double AvStream::seconds(std::int64_t timestamp) const {
    return timestamp == AV_NOPTS_VALUE
               ? unknownTime
               : static_cast<double>(timestamp) * av_q2d(stream().time_base) - m_timeOffset;
}

double AvStream::endOfStream() const {
    const auto& context = *m_input->context();
    const auto containerTime = [](std::int64_t time) {
        return time == AV_NOPTS_VALUE ? 0 : static_cast<double>(time) / AV_TIME_BASE;
    };
    // Matroska tells of lengths from time 0 on, others of those from the first sample on.
    const bool fromZero = std::strcmp(context.iformat->name, "matroska,webm") == 0;
    double end = 0;
    // An estimate from the last times in the file misses most of an audio packet with many frames.
    if (stream().duration != AV_NOPTS_VALUE &&
        context.duration_estimation_method != AVFMT_DURATION_FROM_PTS)
        end = static_cast<double>(stream().duration) * av_q2d(stream().time_base) +
              (fromZero ? -m_timeOffset : knownOr(-m_timeOffset, seconds(stream().start_time)));
    else
        end = (fromZero ? 0 : containerTime(context.start_time)) + containerTime(context.duration) -
              m_timeOffset;
    return std::max(end, 0.0);
}

SampleStream::Batch AvStream::read(std::size_t count) {
    Batch batch;
    while (batch.samples.size() < count) {
        const auto packet = nextPacket();
        if (!packet)
            break;
        if (auto sample = makeSample(*packet))
            batch.samples.push_back(std::make_unique<Sample>(std::move(*sample)));
    }
    if (m_ahead.empty() && m_end) {
        batch.ended = m_end->empty();
        batch.error = *m_end;
    }
    return batch;
}

std::optional<AvStream::Packet> AvStream::nextPacket() {
    if (m_ahead.empty())
        return readPacket();
    auto packet = std::move(m_ahead.front());
    m_ahead.pop_front();
    return packet;
}

std::optional<AvStream::Packet> AvStream::readPacket() {
    while (!m_end) {
        const std::shared_ptr<AVPacket> packet(av_packet_alloc(), FreePacket());
        const int error = packet == nullptr ? AVERROR(ENOMEM)
                          : m_input->interrupted()
                              ? AVERROR_EXIT
                              : av_read_frame(m_input->context(), packet.get());
        if (error == AVERROR(EAGAIN))
            continue;
        if (error < 0) {
            endWith(error);
            break;
        }
        if (packet->stream_index != m_index || !takeNewHeaders(*packet) || packet->size <= 0)
            continue;
        m_latestRead = std::max({m_latestRead, packet->pts, packet->dts}); // unknown is the least
        if (!m_firstRead)
            m_firstRead = timestampOf(*packet);
        // Without reordering the two times are the same.
        const bool ordered = isAudio() || stream().codecpar->video_delay == 0;
        const auto pts = packet->pts == AV_NOPTS_VALUE && ordered ? packet->dts : packet->pts;
        const bool keyFrame = isAudio() || (packet->flags & AV_PKT_FLAG_KEY) != 0;
        return Packet{packet, m_format, seconds(pts), seconds(packet->dts), keyFrame};
    }
    return std::nullopt;
}

/// False when they cannot be used, with which the stream ends.
bool AvStream::takeNewHeaders(const AVPacket& packet) {
    std::size_t size = 0;
    const auto* bytes = av_packet_get_side_data(&packet, AV_PKT_DATA_NEW_EXTRADATA, &size);
    const auto& known = m_format->extradata;
    if (bytes == nullptr || std::equal(bytes, bytes + size, known.begin(), known.end()))
        return true;
    std::string error;
    auto format = makeStreamFormat(stream(), {bytes, bytes + size}, error);
    if (format == nullptr) {
        m_end = error;
        return false;
    }
    m_format = std::move(format);
    return true;
}

void AvStream::endWith(int error) {
    if (error != AVERROR_EOF)
        m_end = avErrorText(error);
    else if (isTruncated())
        m_end = "the media ends before its last sample; it is truncated";
    else
        m_end = "";
}

/// The container's index knows samples behind the last one that was there.
bool AvStream::isTruncated() const {
    auto* context = m_input->context();
    if ((context->iformat->flags & AVFMT_GENERIC_INDEX) != 0)
        return false; // the index is libavformat's own, of what was read
    auto* stream = context->streams[m_index];
    const auto* last =
        avformat_index_get_entry(stream, avformat_index_get_entries_count(stream) - 1);
    return last != nullptr && m_latestRead < last->timestamp;
}

std::string AvStream::seek(double target) {
    if (m_input->context() == nullptr) {
        if (auto error = reopen(); !error.empty())
            return error;
    }
    target = boundedTarget(target);
    if (!m_firstRead && !readPacket())
        return m_end->empty() ? "there is no sample in it" : *m_end;
    for (double back = 0; back < target && knowsTimes(); back = std::max(1.0, back * 2)) {
        if (jump(target - back) && readAheadTo(target))
            return {};
        if (m_input->interrupted())
            return avErrorText(AVERROR_EXIT);
    }
    if (auto error = goToStart(); !error.empty())
        return error;
    readAheadTo(target);
    if (!m_ahead.empty() || !m_end)
        return {};
    return m_end->empty() ? "there is no key frame to start from" : *m_end;
}

/// Pages of Ogg tell when they end: behind a seek libavformat takes the time asked for as that of
/// the first packet, where it is only the page's. From the start it counts right.
bool AvStream::knowsTimes() const {
    return std::strcmp(m_input->context()->iformat->name, "ogg") != 0;
}

/// libavformat may land later than asked, or fail.
bool AvStream::jump(double target) {
    startReading();
    const auto timestamp = (target + m_timeOffset) / av_q2d(stream().time_base);
    return av_seek_frame(m_input->context(), m_index, std::llround(timestamp),
                         AVSEEK_FLAG_BACKWARD) >= 0;
}

/// What is read next is the very first packet.
std::string AvStream::goToStart() {
    startReading();
    auto* context = m_input->context();
    const auto start = m_firstRead.value_or(AV_NOPTS_VALUE);
    const bool moved = start != AV_NOPTS_VALUE &&
                       (av_seek_frame(context, m_index, start, AVSEEK_FLAG_BACKWARD) >= 0 ||
                        av_seek_frame(context, m_index, start, 0) >= 0);
    auto first = moved ? readPacket() : std::nullopt;
    if (!first || timestampOf(*first->av) != start)
        return reopen();
    m_ahead.push_back(std::move(*first));
    return {};
}

std::string AvStream::reopen() {
    startReading();
    auto error = m_input->open();
    if (error.empty() && !hasSameStream())
        error = "it is another file than before";
    auto format =
        error.empty() ? makeStreamFormat(stream(), extradataOf(stream()), error) : nullptr;
    if (format == nullptr) {
        m_input->close();
        m_end = error;
        return error;
    }
    m_format = std::move(format);
    readOnly();
    return {};
}

bool AvStream::hasSameStream() const {
    return static_cast<unsigned int>(m_index) < m_input->context()->nb_streams &&
           stream().codecpar->codec_id == m_codec;
}

void AvStream::startReading() {
    m_ahead.clear();
    m_end.reset();
    m_latestRead = AV_NOPTS_VALUE;
    m_distance = -1;
}

/// From the latest key frame that is not behind the target; from the first there is when none is.
/// Answers whether there was one.
bool AvStream::readAheadTo(double target) {
    auto [group, found] = startFor<Packet>([this] { return nextPacket(); }, target);
    m_ahead = std::move(group);
    return found;
}

/// Nothing for a frame that is not to be heard.
std::optional<SampleData> AvStream::makeSample(const Packet& packet) {
    SampleData sample;
    sample.pts = knownOr(-1, packet.pts);
    sample.dts = knownOr(-1, packet.dts);
    sample.duration = durationOf(packet);
    sample.keyFrame = packet.keyFrame;
    sample.config = packet.format->config;
    if (isAudio() && packet.pts < 0 && !moveIntoMedia(sample))
        return std::nullopt;
    if (auto error = takePayload(packet, sample); !error.empty()) {
        m_ahead.clear();
        m_end = "at " + timeText(sample.pts) + ": " + error;
    }
    return sample.size == 0 ? std::nullopt : std::optional(std::move(sample));
}

double AvStream::durationOf(const Packet& packet) {
    const auto& parameters = *stream().codecpar;
    if (packet.av->duration > 0)
        return static_cast<double>(packet.av->duration) * av_q2d(stream().time_base);
    if (!isAudio() && stream().avg_frame_rate.num > 0 && stream().avg_frame_rate.den > 0)
        return 1 / av_q2d(stream().avg_frame_rate);
    if (isAudio() && parameters.frame_size > 0 && parameters.sample_rate > 0)
        return static_cast<double>(parameters.frame_size) / parameters.sample_rate;
    return distanceToNext(packet);
}

/// Behind the last packet: what it was before.
double AvStream::distanceToNext(const Packet& packet) {
    if (m_ahead.empty()) {
        if (auto next = readPacket())
            m_ahead.push_back(std::move(*next));
    }
    if (!m_ahead.empty() && m_ahead.front().dts > packet.dts)
        m_distance = m_ahead.front().dts - packet.dts;
    return m_distance;
}

std::string AvStream::takePayload(const Packet& packet, SampleData& sample) const {
    const std::uint8_t* bytes = packet.av->data;
    auto size = static_cast<std::size_t>(packet.av->size);
    auto& protection = sample.protection;
    auto error = m_keyId.empty()
                     ? takeMp4Protection(*packet.av, m_input->protectionOf(stream().id), protection)
                     : takeWebmProtection(m_keyId, bytes, size, protection);
    if (!error.empty())
        return error;
    if (isByteStream(*packet.format->config) && protection.scheme == Protection::Scheme::None) {
        takeAccessUnit(packet.av, bytes, size, sample);
        return {};
    }
    if (!packet.format->adts) {
        sample.payload = {packet.av, bytes};
        sample.size = size;
        return {};
    }
    if (size > maximumAdtsPayload)
        return "an AAC frame is too long for an ADTS header";
    const auto header = adtsHeader(*packet.format->adts, size);
    const auto frame = std::make_shared<std::vector<std::uint8_t>>(header.size() + size);
    std::copy_n(bytes, size, std::copy(header.begin(), header.end(), frame->begin()));
    sample.payload = {frame, frame->data()};
    sample.size = frame->size();
    prependClear(header.size(), size, protection);
    return {};
}

} // namespace host
