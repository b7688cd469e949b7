#include "host/media_demuxer.h"

#include "av_stream.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace host {

namespace {

constexpr std::array<AVMediaType, 2> mediaTypes = {AVMEDIA_TYPE_AUDIO, AVMEDIA_TYPE_VIDEO};
/// A clock that starts later than this, in seconds, counts something else than the media.
constexpr double latestStart = 0.5;

bool isCandidate(const AVStream& stream, AVMediaType type) {
    return stream.codecpar->codec_type == type && stream.codecpar->codec_id != AV_CODEC_ID_NONE &&
           (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) == 0;
}

/// -1 when there is none that media sources take.
int firstStream(const AVFormatContext& context, AVMediaType type) {
    for (unsigned int i = 0; i < context.nb_streams; ++i) {
        const auto& stream = *context.streams[i];
        if (isCandidate(stream, type) && mediaSourceType(stream.codecpar->codec_id) != nullptr)
            return static_cast<int>(i);
    }
    return -1;
}

/// For an input of which no stream can be fed.
std::string whyNone(const AVFormatContext& context) {
    std::string codecs;
    for (const auto type : mediaTypes) {
        for (unsigned int i = 0; i < context.nb_streams; ++i) {
            const auto& stream = *context.streams[i];
            if (!isCandidate(stream, type))
                continue;
            codecs += codecs.empty() ? "" : " and ";
            codecs += std::string("the ") + av_get_media_type_string(type) + " codec " +
                      avcodec_get_name(stream.codecpar->codec_id);
            break;
        }
    }
    return codecs.empty() ? "there is neither audio nor video in it"
                          : codecs + " cannot be fed as a media source; play the URL without --mse";
}

double startOf(const AvInput& input) {
    const auto start = input.context()->start_time;
    return start == AV_NOPTS_VALUE ? 0 : static_cast<double>(start) / AV_TIME_BASE;
}

/// What becomes time 0 of all inputs: the start of the earliest one, if its clock begins anywhere,
/// as those of transport streams and of what is cut out of something longer do.
double timeOffset(const std::vector<std::unique_ptr<AvInput>>& inputs) {
    const auto earliest =
        std::min_element(inputs.begin(), inputs.end(), [](const auto& left, const auto& right) {
            return startOf(*left) < startOf(*right);
        });
    const double start = startOf(**earliest);
    const auto* format = (*earliest)->context()->iformat->name;
    return std::strcmp(format, "mpegts") == 0 || start > latestStart ? start : 0;
}

DemuxedMedia failed(std::string error) {
    DemuxedMedia media;
    media.error = std::move(error);
    return media;
}

/// The input, which is open, is for the first of the streams; the others get their own.
DemuxedMedia openStreams(const std::string& name, std::unique_ptr<AvInput> input, double offset,
                         const std::atomic<bool>& cancelled) {
    auto why = whyNone(*input->context());
    DemuxedMedia media;
    for (const auto type : mediaTypes) {
        if (input == nullptr) {
            input = std::make_unique<AvInput>(name, cancelled);
            if (auto error = input->open(); !error.empty())
                return failed(std::move(error));
        }
        const int index = firstStream(*input->context(), type);
        if (index < 0)
            continue;
        input->forgetCancelled();
        std::string error;
        auto stream = AvStream::make(std::move(input), index, offset, error);
        if (stream == nullptr)
            return failed(std::move(error));
        media.streams.push_back(std::move(stream));
    }
    if (media.streams.empty())
        media.error = std::move(why);
    return media;
}

} // namespace

std::vector<DemuxedMedia> openMedia(const std::vector<std::string>& names,
                                    const std::atomic<bool>& cancelled) {
    std::vector<DemuxedMedia> media;
    std::vector<std::unique_ptr<AvInput>> inputs;
    for (const auto& name : names) {
        inputs.push_back(std::make_unique<AvInput>(name, cancelled));
        if (auto error = inputs.back()->open(); !error.empty()) {
            media.resize(names.size());
            media[inputs.size() - 1].error = std::move(error);
            return media;
        }
    }
    const double offset = inputs.empty() ? 0 : timeOffset(inputs);
    for (std::size_t i = 0; i < names.size(); ++i)
        media.push_back(openStreams(names[i], std::move(inputs[i]), offset, cancelled));
    return media;
}

DemuxedMedia openMedia(const std::string& name, const std::atomic<bool>& cancelled) {
    return std::move(openMedia(std::vector{name}, cancelled).front());
}

} // namespace host
