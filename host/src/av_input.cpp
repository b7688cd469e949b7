#include "av_input.h"

extern "C" {
#include <libavutil/base64.h>
}

#include <algorithm>
#include <array>
#include <filesystem>
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
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text = {};
    av_strerror(error, text.data(), text.size());
    return text.data();
}

AvInput::AvInput(std::string name, const std::atomic<bool>& cancelled)
    : m_name(std::move(name)), m_cancelled(&cancelled) {
    av_log_set_level(AV_LOG_QUIET);
}

std::string AvInput::open() {
    m_context.reset();
    if (isPipe(m_name))
        return "a pipe can be read only once, and each stream needs an input of its own: give a "
               "file or a URL";
    AVFormatContext* context = avformat_alloc_context();
    if (context == nullptr)
        return avErrorText(AVERROR(ENOMEM));
    context->interrupt_callback = {askInterrupted, this};
    context->probesize = probeBytes;
    context->max_analyze_duration = probeDuration;
    if (const int error = avformat_open_input(&context, m_name.c_str(), nullptr, nullptr))
        return avErrorText(error); // has freed the context
    m_context.reset(context);

    // Parsers take encrypted frames for damaged clear ones, and lose the key-frame marks.
    if (anyEncryptedMatroskaTrack(*context))
        context->flags |= AVFMT_FLAG_NOPARSE;
    const int error = avformat_find_stream_info(context, nullptr);
    if (error >= 0 && !interrupted())
        return {};
    m_context.reset();
    return avErrorText(interrupted() ? AVERROR_EXIT : error);
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
