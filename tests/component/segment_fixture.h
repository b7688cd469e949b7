#ifndef SEGMENT_FIXTURE_H
#define SEGMENT_FIXTURE_H

#include "demux_fixture.h"
#include "host/segment_parser.h"

#include <iomanip>

// What a parser of segments tells.

using host::CodedFrame;
using host::Protection;
using host::SegmentParser;

template <typename Range>
std::string hexOf(const Range& bytes) {
    std::ostringstream text;
    for (const auto byte : bytes)
        text << std::hex << std::setw(2) << std::setfill('0') << int{byte};
    return text.str();
}

/// All but its times.
inline std::string contentOf(const host::SampleData& sample) {
    const std::string_view payload(reinterpret_cast<const char*>(sample.payload.get()),
                                   sample.size);
    const auto& protection = sample.protection;
    std::ostringstream text;
    text << sample.size << " bytes " << std::hash<std::string_view>()(payload)
         << (sample.keyFrame ? " key" : "");
    if (protection.scheme != Protection::Scheme::None) {
        text << (protection.scheme == Protection::Scheme::Cenc ? " cenc " : " cbcs ")
             << hexOf(protection.keyId) << " " << hexOf(protection.iv) << " "
             << protection.cryptByteBlock << ":" << protection.skipByteBlock;
        for (const auto& part : protection.subsamples)
            text << " " << part.clearBytes << "+" << part.encryptedBytes;
    }
    return text.str();
}

/// All that a parser tells, in words.
struct Told final : SegmentParser::Output {
    std::vector<host::InitSegment> inits;
    std::vector<CodedFrame> frames;
    std::string order; ///< one for all frames that follow one another
    std::string error;
    SegmentParser::State state = SegmentParser::State::Waiting;

    void onInit(host::InitSegment segment) override {
        order += "init ";
        for (const auto& data : segment.initData)
            order += "(" + data.type + " " + std::to_string(data.data.size()) + ") ";
        inits.push_back(std::move(segment));
    }
    void onInitData(host::InitData data) override {
        order += "(" + data.type + " " + std::to_string(data.data.size()) + ") ";
    }
    void onEvent(host::EventMessage event) override {
        std::ostringstream text;
        text << "event " << event.schemeIdUri << "/" << event.value << "/" << event.id << " at "
             << event.presentationTime << " for " << event.duration << " "
             << std::string(event.data.begin(), event.data.end()) << " ";
        order += text.str();
    }
    void onSegmentEnd() override { order += "end "; }
    void onFrames(std::vector<CodedFrame> some) override {
        EXPECT_FALSE(some.empty());
        constexpr std::string_view word = "frames ";
        if (order.size() < word.size() || order.substr(order.size() - word.size()) != word)
            order += word;
        std::move(some.begin(), some.end(), std::back_inserter(frames));
    }

    std::vector<host::SampleData> of(std::uint32_t track) const {
        std::vector<host::SampleData> samples;
        for (const auto& frame : frames)
            if (frame.track == track)
                samples.push_back(frame.sample);
        return samples;
    }
};

/// In a piece of exactly its size, so that a sanitizer sees what is read behind it.
inline std::string append(SegmentParser& parser, const std::uint8_t* bytes, std::size_t size) {
    const std::shared_ptr<std::uint8_t> piece(new std::uint8_t[size],
                                              std::default_delete<std::uint8_t[]>());
    std::copy_n(bytes, size, piece.get());
    return parser.append(piece, size);
}

/// In pieces of these sizes, in turn.
inline std::unique_ptr<Told> parse(const Bytes& stream, const std::string& type = "video/mp4",
                                   const std::vector<std::size_t>& sizes = {~std::size_t{0}}) {
    auto told = std::make_unique<Told>();
    const auto parser = SegmentParser::make(type, *told);
    for (std::size_t at = 0, turn = 0; at < stream.size() && told->error.empty(); ++turn) {
        const auto size = std::min(sizes[turn % sizes.size()], stream.size() - at);
        told->error = append(*parser, stream.data() + at, size);
        at += size;
    }
    told->state = parser->state();
    return told;
}

#endif
