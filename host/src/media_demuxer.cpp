#include "host/media_demuxer.h"

#include "av_stream.h"
#include "fragmented_stream.h"

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

/// One file or URL, opened as what it is.
struct Input {
    std::string name;
    std::unique_ptr<AvInput> demuxer; ///< null: it is read as the others say
    std::shared_ptr<Interruption> interruption;
    std::unique_ptr<FileBytes> bytes;
    std::shared_ptr<const FragmentedFile> file;

    double start() const;            ///< seconds
    bool countsFromAnywhere() const; ///< its clock has nothing to do with the media
};

double Input::start() const {
    if (file != nullptr)
        return file->start;
    const auto start = demuxer->context()->start_time;
    return start == AV_NOPTS_VALUE ? 0 : static_cast<double>(start) / AV_TIME_BASE;
}

bool Input::countsFromAnywhere() const {
    return start() > latestStart ||
           (demuxer != nullptr && std::strcmp(demuxer->context()->iformat->name, "mpegts") == 0);
}

/// Answers what went wrong.
std::string open(Input& input, const std::atomic<bool>& cancelled) {
    input.interruption = std::make_shared<Interruption>(cancelled);
    auto bytes = std::make_unique<FileBytes>(input.name, input.interruption);
    if (!isPipe(input.name) && bytes->open().empty()) {
        if (auto file = indexFragments(*bytes)) {
            input.file = std::make_shared<const FragmentedFile>(std::move(*file));
            input.bytes = std::move(bytes);
            return {};
        }
    }
    input.demuxer = std::make_unique<AvInput>(input.name, cancelled);
    return input.demuxer->open();
}

/// What becomes time 0 of all inputs: the start of the earliest one, if its clock begins anywhere,
/// as those of transport streams and of what is cut out of something longer do.
double timeOffset(const std::vector<Input>& inputs) {
    const auto earliest =
        std::min_element(inputs.begin(), inputs.end(), [](const Input& left, const Input& right) {
            return left.start() < right.start();
        });
    return earliest->countsFromAnywhere() ? earliest->start() : 0;
}

DemuxedMedia failed(std::string error) {
    DemuxedMedia media;
    media.error = std::move(error);
    return media;
}

/// What is open is for the first of the streams; the others get their own.
DemuxedMedia openFragmented(Input input, double offset, const std::atomic<bool>& cancelled) {
    DemuxedMedia media;
    for (const auto& track : input.file->tracks) {
        if (input.bytes == nullptr) {
            input.interruption = std::make_shared<Interruption>(cancelled);
            input.bytes = std::make_unique<FileBytes>(input.name, input.interruption);
            if (auto error = input.bytes->open(); !error.empty())
                return failed(std::move(error));
        }
        input.interruption->forgetCancelled();
        media.streams.push_back(std::make_unique<FragmentedStream>(
            std::move(input.bytes), input.interruption, input.file, track, offset));
    }
    return media;
}

DemuxedMedia openDemuxed(Input input, double offset, const std::atomic<bool>& cancelled) {
    auto& demuxer = input.demuxer;
    auto why = whyNone(*demuxer->context());
    DemuxedMedia media;
    for (const auto type : mediaTypes) {
        if (demuxer == nullptr) {
            demuxer = std::make_unique<AvInput>(input.name, cancelled);
            if (auto error = demuxer->open(); !error.empty())
                return failed(std::move(error));
        }
        const int index = firstStream(*demuxer->context(), type);
        if (index < 0)
            continue;
        demuxer->forgetCancelled();
        std::string error;
        auto stream = AvStream::make(std::move(demuxer), index, offset, error);
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
    std::vector<Input> inputs;
    for (const auto& name : names) {
        inputs.push_back({name, nullptr, nullptr, nullptr, nullptr});
        if (auto error = open(inputs.back(), cancelled); !error.empty()) {
            media.resize(names.size());
            media[inputs.size() - 1].error = std::move(error);
            return media;
        }
    }
    const double offset = inputs.empty() ? 0 : timeOffset(inputs);
    for (auto& input : inputs)
        media.push_back(input.file != nullptr ? openFragmented(std::move(input), offset, cancelled)
                                              : openDemuxed(std::move(input), offset, cancelled));
    return media;
}

DemuxedMedia openMedia(const std::string& name, const std::atomic<bool>& cancelled) {
    return std::move(openMedia(std::vector{name}, cancelled).front());
}

} // namespace host
