#ifndef DEMUX_FIXTURE_H
#define DEMUX_FIXTURE_H

#include "host/media_demuxer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <sstream>

// Streams of files, and what ffprobe says of them.

using host::StreamInfo;
using Bytes = std::vector<std::uint8_t>;
using Samples = std::vector<std::unique_ptr<host::Sample>>;

/// "corpus:..." is a real file, anything else one that the build makes.
inline std::string pathOf(const std::string& name) {
    constexpr std::string_view corpus = "corpus:";
    return name.rfind(corpus, 0) == 0 ? TEST_CORPUS "/" + name.substr(corpus.size())
                                      : TEST_MEDIA_DIR "/" + name;
}

inline bool isHere(const std::string& name) {
    return std::filesystem::exists(TEST_CORPUS) || name.rfind("corpus:", 0) != 0;
}

inline host::DemuxedMedia open(const std::string& path) {
    const std::atomic<bool> cancelled{false};
    return host::openMedia(path, cancelled);
}

inline std::unique_ptr<host::SampleStream> openStream(const std::string& name,
                                                      StreamInfo::Kind kind) {
    auto media = open(pathOf(name));
    EXPECT_EQ(media.error, "");
    for (auto& stream : media.streams) {
        if (stream->info().kind == kind)
            return std::move(stream);
    }
    return nullptr;
}

inline Samples readAll(host::SampleStream& stream, std::string& error) {
    Samples samples;
    while (true) {
        auto batch = stream.read(50);
        EXPECT_LE(batch.samples.size(), 50U);
        std::move(batch.samples.begin(), batch.samples.end(), std::back_inserter(samples));
        error = batch.error;
        if (batch.ended || !batch.error.empty())
            return samples;
        if (batch.samples.empty()) {
            ADD_FAILURE() << "a file has no pauses";
            return samples;
        }
    }
}

struct Times {
    double pts = NAN; ///< seconds; not a number: unknown
    double dts = NAN;
};

/// Of the packets that ffprobe finds, without the audio that ends before time 0.
inline std::vector<Times> probe(const std::string& path, bool audio) {
    const auto command = "ffprobe -v quiet -select_streams " + std::string(audio ? "a:0" : "V:0") +
                         " -show_entries packet=pts_time,dts_time,duration_time -of csv=p=1 '" +
                         path + "'";
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    const bool mayBegin = audio && path.find(".ts") == std::string::npos &&
                          path.find("opus") == std::string::npos &&
                          path.find("vorbis") == std::string::npos;
    std::vector<Times> packets;
    for (char line[128]; fgets(line, sizeof line, pipe.get()) != nullptr;) {
        if (std::string_view(line).rfind("packet", 0) != 0)
            continue;
        std::stringstream fields(line);
        double values[3] = {NAN, NAN, NAN};
        std::string field;
        std::getline(fields, field, ',');
        for (double& value : values)
            if (std::getline(fields, field, ','))
                value = field.rfind("N/A", 0) == 0 ? NAN : std::strtod(field.c_str(), nullptr);
        if (!mayBegin || !(values[0] < 0 && values[0] + values[2] < 1e-5))
            packets.push_back({values[0], values[1]});
    }
    return packets;
}

/// The one distance between the times of the samples and those that ffprobe finds.
inline void expectMoved(const Samples& samples, const std::vector<Times>& packets, double by) {
    ASSERT_EQ(samples.size(), packets.size());
    for (std::size_t i = 0; i < samples.size(); ++i) {
        if (const double pts = packets[i].pts + by; pts >= 0) {
            ASSERT_NEAR(samples[i]->pts(), pts, 1e-4) << i;
        }
        if (const double dts = packets[i].dts + by; dts >= 0) {
            ASSERT_NEAR(samples[i]->dts(), dts, 1e-4) << i;
        }
    }
}

#endif
