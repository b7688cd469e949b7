// The parser of segments against libavformat on the same bytes, in turns, in one process.
//
// usage: segment_parser_bench RESULT.md FILE...

#include "bench_support.h"
#include "host/segment_parser.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <iterator>
#include <new>
#include <string>
#include <vector>

namespace {

std::atomic<std::size_t> allocations{0};

} // namespace

void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Counter final : host::SegmentParser::Output {
    std::size_t frames = 0, bytes = 0;
    std::size_t allocationsBefore = 0; ///< up to the last initialization segment

    void onInit(host::InitSegment) override { allocationsBefore = allocations; }
    void onInitData(host::InitData) override {}
    void onFrames(std::vector<host::CodedFrame> some) override {
        frames += some.size();
        for (const auto& frame : some)
            bytes += frame.sample.size;
    }
    void onEvent(host::EventMessage) override {}
    void onSegmentEnd() override {}
};

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "segment_parser_bench: %s\n", what.c_str());
    std::exit(1);
}

Counter parse(const std::shared_ptr<const Bytes>& stream, const std::string& type,
              std::size_t piece) {
    Counter counter;
    const auto parser = host::SegmentParser::make(type, counter);
    for (std::size_t at = 0; at < stream->size(); at += piece)
        if (const auto error =
                parser->append({stream, stream->data() + at}, std::min(piece, stream->size() - at));
            !error.empty())
            fail(error);
    return counter;
}

struct Source {
    const Bytes* bytes;
    std::size_t at;
};

int readSource(void* opaque, std::uint8_t* to, int size) {
    auto& source = *static_cast<Source*>(opaque);
    const auto count = std::min(static_cast<std::size_t>(size), source.bytes->size() - source.at);
    std::memcpy(to, source.bytes->data() + source.at, count);
    source.at += count;
    return count == 0 ? AVERROR_EOF : static_cast<int>(count);
}

std::int64_t seekSource(void* opaque, std::int64_t offset, int whence) {
    auto& source = *static_cast<Source*>(opaque);
    if (whence == AVSEEK_SIZE)
        return static_cast<std::int64_t>(source.bytes->size());
    if (whence != SEEK_SET)
        return AVERROR(EINVAL);
    source.at = static_cast<std::size_t>(offset);
    return offset;
}

std::size_t demux(const Bytes& stream) {
    constexpr int bufferSize = 64 * 1024;
    Source source{&stream, 0};
    auto* io = avio_alloc_context(static_cast<unsigned char*>(av_malloc(bufferSize)), bufferSize, 0,
                                  &source, readSource, nullptr, seekSource);
    auto* context = avformat_alloc_context();
    context->pb = io;
    if (avformat_open_input(&context, "", nullptr, nullptr) < 0)
        fail("libavformat does not open it");
    auto* packet = av_packet_alloc();
    std::size_t frames = 0;
    while (av_read_frame(context, packet) >= 0) {
        ++frames;
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&context);
    av_freep(&io->buffer);
    avio_context_free(&io);
    return frames;
}

/// Of the processor, which others may use meanwhile.
double processorTime() {
    timespec time = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double secondsOf(const std::function<void()>& work) {
    const double begin = processorTime();
    work();
    return processorTime() - begin;
}

double median(const std::vector<double>& values) {
    return bench::quantile(values, 0.5);
}

std::string measure(const std::string& name) {
    constexpr int rounds = 101;
    constexpr std::size_t piece = 64 * 1024;
    std::ifstream file(name, std::ios::binary);
    const auto stream = std::make_shared<const Bytes>(std::istreambuf_iterator<char>(file),
                                                      std::istreambuf_iterator<char>());
    const std::string type = name.find(".webm") == std::string::npos ? "video/mp4" : "video/webm";
    const auto told = parse(stream, type, stream->size());
    const auto each = static_cast<double>(allocations - told.allocationsBefore) /
                      static_cast<double>(told.frames);
    std::size_t found = 0;
    std::vector<double> whole, pieces, theirs;
    for (int i = 0; i < rounds; ++i) {
        whole.push_back(secondsOf([&] { parse(stream, type, stream->size()); }));
        theirs.push_back(secondsOf([&] { found = demux(*stream); }));
        pieces.push_back(secondsOf([&] { parse(stream, type, piece); }));
    }
    const auto speed = [&](const std::vector<double>& times) {
        return static_cast<double>(stream->size()) / median(times) / 1e9;
    };
    std::array<char, 512> line = {};
    const auto slash = name.rfind('/');
    std::snprintf(line.data(), line.size(),
                  "| %s | %.1f | %zu, %zu | %.2f | %.2f | %.2f | %.2f | %.2f | %.2f |\n",
                  name.substr(slash == std::string::npos ? 0 : slash + 1).c_str(),
                  static_cast<double>(stream->size()) / 1e6, told.frames, found, speed(whole),
                  speed(pieces), speed(theirs), median(whole) / median(theirs),
                  median(pieces) / median(theirs), each);
    return line.data();
}

} // namespace

int main(int count, char** arguments) {
    if (count < 3)
        fail("usage: segment_parser_bench RESULT.md FILE...");
    av_log_set_level(AV_LOG_QUIET);
    std::string text =
        "# Parser of segments\n\n"
        "Median of 101 turns; processor time. libavformat reads the same bytes from memory, "
        "without "
        "looking for stream information. Allocations are those behind the last initialization "
        "segment over the frames, in one piece.\n\n"
        "| stream | MB | frames, theirs | whole, GB/s | 64 KiB pieces, GB/s | libavformat, GB/s | "
        "whole / theirs | pieces / theirs | allocations a frame |\n"
        "|---|---|---|---|---|---|---|---|---|\n";
    for (int i = 2; i < count; ++i)
        text += measure(arguments[i]);
    std::ofstream(arguments[1]) << text;
    std::printf("%s", text.c_str());
}
