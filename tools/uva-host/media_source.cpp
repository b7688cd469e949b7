#include "media_source.h"

#include "host/media_uri.h"
#include "util/printable.h"

#include <algorithm>
#include <utility>

namespace uvahost {

namespace {

using host::DemuxedMedia;
using host::SampleStream;
using Streams = std::vector<std::unique_ptr<SampleStream>>;

const char* nameOf(host::StreamInfo::Kind kind) {
    return kind == host::StreamInfo::Kind::Audio ? "audio" : "video";
}

std::unique_ptr<SampleStream>* find(Streams& streams, host::StreamInfo::Kind kind) {
    const auto found = std::find_if(streams.begin(), streams.end(), [kind](const auto& stream) {
        return stream->info().kind == kind;
    });
    return found != streams.end() ? &*found : nullptr;
}

/// Adds the streams of a file; answers what is wrong.
std::string addFile(DemuxedMedia& media, Streams& streams) {
    for (auto& stream : media.streams) {
        const auto kind = stream->info().kind;
        if (find(streams, kind) != nullptr)
            return std::string("there is ") + nameOf(kind) +
                   " already; name one file with it, others with --switch-at";
        streams.push_back(std::move(stream));
    }
    return {};
}

/// Puts its streams behind those of their kind; answers what is wrong.
std::string addSwitch(double time, DemuxedMedia& media, Streams& streams) {
    for (auto& stream : media.streams) {
        auto* present = find(streams, stream->info().kind);
        if (present == nullptr)
            continue;
        if ((*present)->info().codec != stream->info().codec)
            return std::string(nameOf(stream->info().kind)) + " is " + stream->info().codec +
                   ", not " + (*present)->info().codec + "; renditions must have one codec";
        *present = host::switchAt(std::move(*present), time, std::move(stream));
    }
    return {};
}

/// What opening needs of the options.
struct Recipe {
    std::vector<std::string> names;
    std::vector<RenditionSwitch> switches;
    host::Protection::Scheme protect = host::Protection::Scheme::None;
    std::vector<host::KeyPair> keys;

    DemuxedMedia open(const std::atomic<bool>& cancelled) const {
        auto inputs = names; // of one piece of media, which share their time 0
        for (const auto& change : switches)
            inputs.push_back(change.name);
        auto media = host::openMedia(inputs, cancelled);
        DemuxedMedia result;
        for (std::size_t i = 0; i < inputs.size(); ++i) {
            auto error = media[i].error;
            if (error.empty())
                error = i < names.size()
                            ? addFile(media[i], result.streams)
                            : addSwitch(switches[i - names.size()].time, media[i], result.streams);
            if (!error.empty())
                return {{}, (inputs.size() > 1 ? printable(inputs[i]) + ": " : "") + error};
        }
        if (protect != host::Protection::Scheme::None)
            for (auto& stream : result.streams)
                stream = host::protect(std::move(stream), protect, keys.front());
        return result;
    }
};

} // namespace

host::MediaSource makeMediaSource(const Options& options,
                                  std::shared_ptr<const host::ClearKey> keys) {
    Recipe recipe{options.media, options.switches, options.protect, options.keys};
    std::stable_sort(recipe.switches.begin(), recipe.switches.end(),
                     [](const auto& a, const auto& b) { return a.time < b.time; });
    host::MediaSource source;
    source.open = [recipe = std::move(recipe)](const std::atomic<bool>& cancelled) {
        return recipe.open(cancelled);
    };
    source.start = options.start;
    source.keys = std::move(keys);
    for (const auto& name : options.media)
        if (source.server.empty())
            source.server = host::serverOf(name);
    return source;
}

} // namespace uvahost
