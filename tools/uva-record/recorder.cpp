#include "recorder.h"

#include "uva/uva_event.h"
#include "uva/uva_stream_config.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <pthread.h>

namespace record {

namespace {

std::uint64_t monotonicNow() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1000000000 +
           static_cast<std::uint64_t>(time.tv_nsec);
}

void put(Encoder& out, const UVAStreamConfig::ColorInfo* color) {
    if (color == nullptr)
        return out.null();
    out.list(5);
    for (const unsigned int value :
         {color->matrix, color->range, color->transfer, color->primaries, color->bitsPerChannel})
        out.integer(value);
}

void put(Encoder& out, const UVAStreamConfig::MasteringMetadata* mastering) {
    if (mastering == nullptr)
        return out.null();
    const auto& m = *mastering;
    out.list(10);
    for (const double value :
         {m.primaryRX, m.primaryRY, m.primaryGX, m.primaryGY, m.primaryBX, m.primaryBY,
          m.whitePointX, m.whitePointY, m.luminanceMax, m.luminanceMin})
        out.real(value);
}

} // namespace

std::uint64_t lookOf(const UVAEvent& event) {
    const auto type = static_cast<std::uint64_t>(event.type());
    if (event.type() != UVAEvent::NeedMSEData)
        return type;
    const auto& request = static_cast<const NeedMSEDataEvent&>(event);
    return type | std::uint64_t{request.sourceId} << 32 |
           static_cast<std::uint64_t>(static_cast<std::uint16_t>(request.samplesRequested)) << 16;
}

void Recorder::append(Kind kind, std::uint32_t object, std::uint32_t number, std::uint16_t code,
                      const void* body, std::size_t size) {
    EntryHeader header{};
    header.time = monotonicNow() - m_file->began();
    header.thread = thread();
    header.object = object;
    header.number = number;
    header.code = code;
    m_file->append(kind, header, body, size);
}

void Recorder::note(Kind kind, std::uint32_t object, std::uint32_t number, std::uint16_t code,
                    const Encoder& body) {
    if (body.size() <= largestBody)
        return append(kind, object, number, code, body.data(), body.size());
    Encoder digest;
    digest.digest(body.size(), digestOf(body.data(), body.size()));
    append(kind, object, number, code, digest.data(), digest.size());
}

void Recorder::data(std::uint32_t object, std::uint32_t sample, const void* bytes,
                    std::size_t size) {
    const auto* at = static_cast<const std::uint8_t*>(bytes);
    for (std::size_t begin = 0; begin < size; begin += pieceSize)
        append(Kind::Data, object, sample, 0, at + begin, std::min(pieceSize, size - begin));
}

void Recorder::say(const std::string& text) {
    std::fprintf(stderr, "uvarecord: %s\n", text.c_str());
    Encoder body;
    body.text(text);
    note(Kind::Note, 0, 0, 0, body);
}

std::uint32_t Recorder::config(std::uint32_t object, const UVAStreamConfig& config) {
    Encoder body;
    body.integer(config.codec);
    body.bytes(config.codecData, config.codecData != nullptr ? config.codecDataSize : 0);
    for (const int value : {config.sampleRate, config.channels, config.width, config.height})
        body.integer(value);
    put(body, config.color);
    put(body, config.mastering);
    const std::string key(reinterpret_cast<const char*>(body.data()), body.size());
    const MutexLock lock(m_mutex);
    const auto [known, isNew] = m_configs.try_emplace(key, 0);
    if (isNew) {
        known->second = next();
        note(Kind::Config, object, known->second, 0, body);
    }
    return known->second;
}

/// A small number for the calling thread; the first time its name is noted.
std::uint32_t Recorder::thread() {
    static thread_local std::uint32_t number = 0;
    if (number != 0)
        return number;
    number = m_threads.fetch_add(1, std::memory_order_relaxed) + 1;
    char name[32] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    Encoder body;
    body.text(name);
    note(Kind::Thread, 0, number, 0, body);
    return number;
}

} // namespace record
