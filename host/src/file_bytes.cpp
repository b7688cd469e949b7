#include "file_bytes.h"

#include <algorithm>
#include <array>
#include <limits>
#include <string_view>

extern "C" {
#include <libavutil/error.h>
#include <libavutil/log.h>
}

namespace host {

std::string avErrorText(int error) {
    if (error == AVERROR_EXIT)
        return "interrupted";
    if (error == AVERROR_INVALIDDATA)
        return "it is damaged, or of a form that libavformat does not read; try to package it anew";
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text = {};
    av_strerror(error, text.data(), text.size());
    return text.data();
}

AVIOInterruptCB Interruption::callback() const {
    const auto ask = [](void* interruption) noexcept {
        return static_cast<const Interruption*>(interruption)->isSet() ? 1 : 0;
    };
    return {ask, const_cast<Interruption*>(this)};
}

std::string FileBytes::open() {
    av_log_set_level(AV_LOG_QUIET);
    const int error = openAnew();
    return error < 0 ? avErrorText(error) : "";
}

int FileBytes::openAnew() {
    AVIOContext* io = nullptr;
    const auto interrupt = m_interruption->callback();
    const int error = avio_open2(&io, m_name.c_str(), AVIO_FLAG_READ, &interrupt, nullptr);
    if (error >= 0)
        m_io.reset(io);
    return error;
}

/// What a server gives from the beginning alone is asked for anew, to go back in it.
std::int64_t FileBytes::goTo(std::int64_t at) {
    const auto place = avio_seek(m_io.get(), at, SEEK_SET);
    if (place != AVERROR(ENOSYS))
        return place;
    if (const int error = openAnew(); error < 0)
        return error;
    return avio_seek(m_io.get(), at, SEEK_SET);
}

std::size_t FileBytes::read(std::uint64_t at, std::uint8_t* bytes, std::size_t size) {
    m_error.clear();
    if (at > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
        return 0;
    const auto fail = [this](std::int64_t error) -> std::size_t {
        if (error != AVERROR_EOF)
            m_error = avErrorText(static_cast<int>(error));
        return 0;
    };
    if (m_interruption->isSet())
        return fail(AVERROR_EXIT);
    if (const auto place = goTo(static_cast<std::int64_t>(at)); place < 0)
        return fail(place);
    std::size_t there = 0;
    while (there < size) {
        constexpr std::size_t most = std::numeric_limits<int>::max();
        const int count =
            avio_read(m_io.get(), bytes + there, static_cast<int>(std::min(size - there, most)));
        if (count <= 0) {
            fail(count == 0 ? AVERROR_EOF : count);
            break;
        }
        there += static_cast<std::size_t>(count);
    }
    return there;
}

bool FileBytes::isLocal() const {
    const char* protocol = avio_find_protocol_name(m_name.c_str());
    return protocol != nullptr && protocol == std::string_view("file");
}

std::uint64_t FileBytes::size() const {
    const auto size = avio_size(m_io.get());
    return size < 0 ? 0 : static_cast<std::uint64_t>(size);
}

} // namespace host
