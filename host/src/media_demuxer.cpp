#include "host/media_demuxer.h"

#include "av_stream.h"
#include "host/media_source.h"

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

/// Of a file that begins anew in the middle: with other keys, or clear before it is encrypted.
struct Part {
    std::string name;
    std::uint64_t begin = 0;
};

/// Behind the first one.
std::vector<Part> furtherParts(const std::string& name, const AvInput& input) {
    std::vector<Part> parts;
    if (input.scan() == nullptr || !input.isLocal())
        return parts;
    const auto& begins = input.scan()->beginnings();
    for (std::size_t i = 1; i < begins.size(); ++i)
        parts.push_back(
            {partOf(name, begins[i], i + 1 < begins.size() ? begins[i + 1] : 0), begins[i]});
    return parts;
}

/// Puts a part's streams behind those there are. Answers what is wrong.
std::string append(const Part& part, double offset, double& latest,
                   const std::atomic<bool>& cancelled, DemuxedMedia& media) {
    auto input = std::make_unique<AvInput>(part.name, cancelled);
    if (auto error = input->open(); !error.empty())
        return error;
    const double start = startOf(*input) - offset;
    if (!input->scan()->isFragmented() || start <= latest)
        return "it does not go on in time; play it as a file of its own";
    latest = start;
    auto further = openStreams(part.name, std::move(input), offset, cancelled);
    if (further.streams.size() != media.streams.size())
        return further.error.empty() ? "it has other streams" : further.error;
    for (std::size_t i = 0; i < media.streams.size(); ++i) {
        auto& first = media.streams[i];
        auto& next = further.streams[i];
        if (first->info().kind != next->info().kind || first->info().codec != next->info().codec)
            return "it has other codecs; play it as a file of its own";
        first = switchAt(std::move(first), start, std::move(next));
    }
    return {};
}

DemuxedMedia openParts(const std::string& name, std::unique_ptr<AvInput> input, double offset,
                       const std::atomic<bool>& cancelled) {
    constexpr std::size_t mostParts = 16; // each has files open
    const auto parts = furtherParts(name, *input);
    if (parts.empty())
        return openStreams(name, std::move(input), offset, cancelled);
    if (parts.size() > mostParts)
        return failed("it begins anew ('moov') more than " + std::to_string(mostParts) +
                      " times; play its parts as files of their own");
    double latest = startOf(*input) - offset;
    const auto first = partOf(name, 0, parts.front().begin);
    input = std::make_unique<AvInput>(first, cancelled);
    if (auto error = input->open(); !error.empty())
        return failed(std::move(error));
    auto media = openStreams(first, std::move(input), offset, cancelled);
    for (const auto& part : parts) {
        if (media.streams.empty())
            break;
        if (auto error = append(part, offset, latest, cancelled, media); !error.empty())
            return failed("what begins anew ('moov') at byte " + std::to_string(part.begin) +
                          " cannot be joined: " + error);
    }
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
        media.push_back(openParts(names[i], std::move(inputs[i]), offset, cancelled));
    return media;
}

DemuxedMedia openMedia(const std::string& name, const std::atomic<bool>& cancelled) {
    return std::move(openMedia(std::vector{name}, cancelled).front());
}

} // namespace host
