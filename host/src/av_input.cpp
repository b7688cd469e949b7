#include "av_input.h"

extern "C" {
#include <libavutil/base64.h>
}

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string_view>
#include <utility>

namespace host {

namespace {

/// What finding out about streams may read: enough for a transport stream to show a key frame.
constexpr std::int64_t probeBytes = 2 * 1024 * 1024;
constexpr std::int64_t probeDuration = 2 * AV_TIME_BASE;

bool isPipe(const std::string& name) {
    std::error_code error;
    return name.rfind("pipe:", 0) == 0 || std::filesystem::is_fifo(name, error);
}

int askInterrupted(void* input) noexcept {
    return static_cast<const AvInput*>(input)->interrupted() ? 1 : 0;
}

bool anyEncryptedMatroskaTrack(const AVFormatContext& context) {
    return std::any_of(context.streams, context.streams + context.nb_streams,
                       [](const AVStream* stream) { return !matroskaKeyId(*stream).empty(); });
}

} // namespace

std::string avErrorText(int error) {
    if (error == AVERROR_EXIT)
        return "interrupted";
    if (error == AVERROR_INVALIDDATA)
        return "it is damaged, or of a form that libavformat does not read; try to package it anew";
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text = {};
    av_strerror(error, text.data(), text.size());
    return text.data();
}

AvInput::AvInput(std::string name, const std::atomic<bool>& cancelled)
    : m_name(std::move(name)), m_cancelled(&cancelled) {
    av_log_set_level(AV_LOG_QUIET);
}

std::string AvInput::open() {
    close();
    if (isPipe(m_name))
        return "a pipe can be read only once, and each stream needs an input of its own: give a "
               "file or a URL";
    int error = openContext();
    if (error >= 0)
        error = openScan();
    if (error >= 0 && !interrupted())
        return {};
    close();
    return avErrorText(interrupted() ? AVERROR_EXIT : error);
}

void AvInput::close() {
    m_scan.reset();
    m_scanned.reset();
    m_context.reset();
}

int AvInput::openContext() {
    AVFormatContext* context = avformat_alloc_context();
    if (context == nullptr)
        return AVERROR(ENOMEM);
    context->interrupt_callback = {askInterrupted, this};
    context->probesize = probeBytes;
    context->max_analyze_duration = probeDuration;
    if (const int error = avformat_open_input(&context, m_name.c_str(), nullptr, nullptr))
        return error; // has freed the context
    m_context.reset(context);

    // Parsers take encrypted frames for damaged clear ones, and lose the key-frame marks.
    if (anyEncryptedMatroskaTrack(*context))
        context->flags |= AVFMT_FLAG_NOPARSE;
    return avformat_find_stream_info(context, nullptr);
}

int AvInput::openScan() {
    if (std::strncmp(m_context->iformat->name, "mov,", 4) != 0)
        return 0;
    AVIOContext* io = nullptr;
    const AVIOInterruptCB interrupt = {askInterrupted, this};
    if (const int error = avio_open2(&io, m_name.c_str(), AVIO_FLAG_READ, &interrupt, nullptr);
        error < 0)
        return error;
    m_scanned.reset(io);
    m_scan = std::make_unique<Mp4Scan>(
        [this, io](std::uint64_t at, std::uint8_t* bytes, std::size_t size) -> std::size_t {
            if (interrupted() || avio_seek(io, static_cast<std::int64_t>(at), SEEK_SET) < 0)
                return 0;
            const int count = avio_read(io, bytes, static_cast<int>(size));
            return static_cast<std::size_t>(std::max(count, 0));
        });
    if (isLocal())
        m_scan->coverTo(std::numeric_limits<std::uint64_t>::max());
    return 0;
}

bool AvInput::isLocal() const {
    const char* protocol = avio_find_protocol_name(m_name.c_str());
    return protocol != nullptr &&
           (protocol == std::string_view("file") || protocol == std::string_view("subfile"));
}

std::string partOf(const std::string& name, std::uint64_t begin, std::uint64_t end) {
    return "subfile,,start," + std::to_string(begin) + ",end," + std::to_string(end) + ",,:" + name;
}

std::string matroskaKeyId(const AVStream& stream) {
    const AVDictionaryEntry* entry = av_dict_get(stream.metadata, "enc_key_id", nullptr, 0);
    if (entry == nullptr)
        return {};
    std::array<std::uint8_t, 64> bytes = {};
    const int size = av_base64_decode(bytes.data(), entry->value, static_cast<int>(bytes.size()));
    return {bytes.begin(), bytes.begin() + std::max(size, 0)};
}

} // namespace host
