#include "av_input.h"

#include "box_source.h"

extern "C" {
#include <libavutil/base64.h>
}

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <utility>

namespace host {

namespace {

/// What finding out about streams may read: enough for a transport stream to show a key frame.
constexpr std::int64_t probeBytes = 2 * 1024 * 1024;
constexpr std::int64_t probeDuration = 2 * AV_TIME_BASE;

bool anyEncryptedMatroskaTrack(const AVFormatContext& context) {
    return std::any_of(context.streams, context.streams + context.nb_streams,
                       [](const AVStream* stream) { return !matroskaKeyId(*stream).empty(); });
}

} // namespace

bool isPipe(const std::string& name) {
    std::error_code error;
    return name.rfind("pipe:", 0) == 0 || std::filesystem::is_fifo(name, error);
}

AvInput::AvInput(std::string name, const std::atomic<bool>& cancelled)
    : m_name(std::move(name)), m_interruption(std::make_shared<Interruption>(cancelled)) {
    av_log_set_level(AV_LOG_QUIET);
}

std::string AvInput::open() {
    close();
    if (isPipe(m_name))
        return "a pipe can be read only once, and each stream needs an input of its own: give a "
               "file or a URL";
    const int error = openContext();
    if (error >= 0 && std::strncmp(m_context->iformat->name, "mov,", 4) == 0)
        readProtection();
    if (error >= 0 && !interrupted())
        return {};
    close();
    return avErrorText(interrupted() ? AVERROR_EXIT : error);
}

void AvInput::close() {
    m_protection.clear();
    m_context.reset();
}

int AvInput::openContext() {
    AVFormatContext* context = avformat_alloc_context();
    if (context == nullptr)
        return AVERROR(ENOMEM);
    context->interrupt_callback = m_interruption->callback();
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

/// What is damaged here is so for libavformat, too.
void AvInput::readProtection() try {
    FileBytes bytes(m_name, m_interruption);
    if (!bytes.open().empty())
        return;
    BoxSource boxes(bytes);
    while (const auto header = boxes.next())
        if (header->type == fourLetters("moov")) {
            const auto body = boxes.bodyOf(*header);
            m_protection = readMp4Protection(header->reader(body.data()));
            return;
        }
} catch (const StreamFault&) {
}

const TrackProtection* AvInput::protectionOf(int track) const {
    const auto found = m_protection.find(static_cast<std::uint32_t>(track));
    return found == m_protection.end() ? nullptr : &found->second;
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
