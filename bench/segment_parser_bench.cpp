// The parser of segments against libavformat on the same bytes: processor time.

#include "bench_support.h"
#include "host/segment_parser.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Counter final : host::SegmentParser::Output {
    std::size_t frames = 0;

    void onInit(host::InitSegment) override {}
    void onInitData(host::InitData) override {}
    void onFrames(std::vector<host::CodedFrame> some) override { frames += some.size(); }
    void onEvent(host::EventMessage) override {}
    void onSegmentEnd() override {}
};

/// Frames found in the stream that is given in pieces.
std::size_t parse(const char* type, const std::shared_ptr<const Bytes>& stream, std::size_t piece) {
    Counter counter;
    const auto parser = host::SegmentParser::make(type, counter);
    for (std::size_t at = 0; at < stream->size(); at += piece)
        if (const auto error =
                parser->append({stream, stream->data() + at}, std::min(piece, stream->size() - at));
            !error.empty())
            bench::fail(error);
    return counter.frames;
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
        bench::fail("libavformat does not open it");
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

/// Microseconds a frame, of which both have to find as many.
template <typename Work>
double microsecondsEach(std::size_t frames, Work work) {
    std::size_t found = 0;
    const double seconds = bench::processorSeconds([&] { found = work(); });
    if (found != frames)
        bench::fail("the parser and libavformat find different frames in " + bench::file);
    return seconds / static_cast<double>(frames) * 1e6;
}

void measure(const char* type, const char* row, const char* rowInPieces) {
    constexpr std::size_t piece = 64 * 1024;
    std::ifstream input(bench::file, std::ios::binary);
    const auto stream = std::make_shared<const Bytes>(std::istreambuf_iterator<char>(input),
                                                      std::istreambuf_iterator<char>());
    if (stream->empty())
        bench::fail("nothing can be read from '" + bench::file + "'");
    const std::size_t frames = demux(*stream);
    const auto inPieces = [&](std::size_t size) {
        return [&, size] {
            return microsecondsEach(frames, [&] { return parse(type, stream, size); });
        };
    };
    const auto values = bench::interleave(
        bench::share(101), {inPieces(stream->size()), inPieces(piece), [&] {
                                return microsecondsEach(frames, [&] { return demux(*stream); });
                            }});
    bench::report(row, values[0], values[2]);
    bench::report(rowInPieces, values[1], values[2]);
}

} // namespace

int main(int argc, char** argv) {
    av_log_set_level(AV_LOG_QUIET);
    return bench::run(
        argc, argv,
        {{"mp4", [] { measure("video/mp4", "parser_mp4", "parser_mp4_pieces"); }},
         {"webm", [] { measure("video/webm", "parser_webm", "parser_webm_pieces"); }}});
}
