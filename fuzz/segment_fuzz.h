#ifndef SEGMENT_FUZZ_H
#define SEGMENT_FUZZ_H

#include "fuzz_target.h"
#include "host/segment_parser.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

// Any bytes as a stream of segments: a parser ends, gives only what makes sense, tells the same
// however the bytes are split, and can be reset. Input: how to split, a byte; the stream.

namespace fuzz {

/// What a parser has told, as numbers.
struct Told final : host::SegmentParser::Output {
    std::vector<double> numbers;

    void add(std::size_t value) { numbers.push_back(static_cast<double>(value)); }

    void onInit(host::InitSegment segment) override {
        require(!(segment.duration < 0));
        for (const auto& track : segment.tracks) {
            require(track.config != nullptr);
            require(!track.info.mimeType.empty() && !track.codecs.empty());
            add(track.id);
        }
        add(segment.initData.size());
    }
    void onInitData(host::InitData data) override { add(data.data.size()); }
    void onEvent(host::EventMessage event) override { add(event.data.size()); }
    void onSegmentEnd() override { add(7); }
    void onFrames(std::vector<host::CodedFrame> frames) override {
        require(!frames.empty());
        for (const auto& frame : frames)
            take(frame.track, frame.sample);
    }

    void take(std::uint32_t track, const host::SampleData& sample) {
        require(sample.size > 0 && sample.payload != nullptr && sample.config != nullptr);
        require(std::isfinite(sample.pts) && std::isfinite(sample.dts) && sample.duration >= 0);
        std::size_t sum = 0;
        for (std::size_t i = 0; i < sample.size; ++i)
            sum = sum * 31 + sample.payload.get()[i];
        std::size_t covered = 0;
        for (const auto& part : sample.protection.subsamples)
            covered += std::size_t{part.clearBytes} + part.encryptedBytes;
        require(sample.protection.subsamples.empty() || covered == sample.size);
        add(track);
        add(sum % 65521);
        numbers.insert(numbers.end(), {sample.pts, sample.dts, sample.duration});
    }
};

inline std::string give(host::SegmentParser& parser, const uint8_t* data, size_t size,
                        size_t piece) {
    std::string error;
    for (size_t at = 0; at < size && error.empty(); at += piece) {
        const auto count = std::min(piece, size - at);
        const std::shared_ptr<std::uint8_t> bytes(new std::uint8_t[count],
                                                  std::default_delete<std::uint8_t[]>());
        std::copy_n(data + at, count, bytes.get());
        error = parser.append(bytes, count);
    }
    return error;
}

inline int tryStream(const char* type, const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    const size_t piece = 1 + data[0] % 64;
    ++data;
    --size;
    Told whole, pieces;
    const auto atOnce = host::SegmentParser::make(type, whole);
    const auto bitByBit = host::SegmentParser::make(type, pieces);
    const auto error = give(*atOnce, data, size, size);
    require(give(*bitByBit, data, size, piece) == error);
    require(whole.numbers == pieces.numbers);
    require(atOnce->state() == bitByBit->state() || !error.empty());
    if (!error.empty())
        require(atOnce->append(std::make_shared<const std::uint8_t>(), 1) == error);
    bitByBit->reset();
    require(bitByBit->state() == host::SegmentParser::State::Waiting);
    give(*bitByBit, data, size, size);
    return 0;
}

} // namespace fuzz

#endif
