// Plays an MP3 or ADTS file through a backend library as a media source: the program takes the file
// apart and feeds the frames. With a time (seconds) it seeks there as soon as it plays; with
// "protected" the frames are encrypted on their way in, and decrypted by a DRM of the program.
//
// feed_samples FILE [SECONDS | protected]

#include "frame_file.h"
#include "uva/uva_client.h"
#include "uva/uva_event.h"
#include "uva/uva_media_backend.h"
#include "xor_drm.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <dlfcn.h>
#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>
#include <utility>

namespace {

constexpr unsigned int sourceId = 1;
constexpr int seekableStream = 1; // GST_APP_STREAM_TYPE_SEEKABLE

/// Handed to the backend, which deletes it: the text lives in it.
class Source final : public UVABackend::SourceDescription {
public:
    explicit Source(const FrameFile& file) : m_mime(file.mimeType) {
        type = MseStreaming;
        sourceId = ::sourceId;
        mimeType = m_mime.c_str();
        streamType = seekableStream;
        durationMs = static_cast<unsigned long long>(file.duration() * 1000);
    }

private:
    const std::string m_mime;
};

/// One frame. Shares the file's bytes, so that nothing is copied and no frame outlives them.
class Sample final : public UVASample {
public:
    Sample(const FrameFile& file, std::size_t index)
        : m_config(file.config), m_bytes(file.bytes), m_frame(file.frames[index]),
          m_time(static_cast<double>(index) * file.frameDuration), m_duration(file.frameDuration) {}

    /// No payload: tells the backend where playback starts, and nothing else.
    explicit Sample(double start) : m_time(start) {}

    /// Encrypts, in memory of its own. For a cipher that is its own reverse.
    void protect(UVADRMDecrypter& cipher) {
        UVADRMDecrypter::Input input;
        input.data = payload();
        input.size = payloadSize();
        input.iv = iv();
        input.ivSize = ivSize();
        input.first = input.last = true;
        auto encrypted = std::make_shared<FrameFile::Bytes>(input.size);
        cipher.decrypt(input, {encrypted->data(), encrypted->size()});
        m_bytes = std::move(encrypted);
        m_frame.offset = 0;
        m_ranges = {{0, static_cast<std::uint32_t>(input.size)}};
        m_protected = true;
    }

    const std::uint8_t* payload() const override {
        return m_bytes != nullptr ? m_bytes->data() + m_frame.offset : nullptr;
    }
    std::size_t payloadSize() const override { return m_frame.size; }
    double pts() const override { return m_time; }
    double dts() const override { return m_time; }
    double duration() const override { return m_duration; }
    const UVAStreamConfig* config() const override { return m_config.get(); }

    const std::uint8_t* keyId() const override { return m_protected ? XorDrm::keyId : nullptr; }
    std::size_t keyIdSize() const override { return m_protected ? sizeof XorDrm::keyId : 0; }
    const std::uint8_t* iv() const override { return vector; }
    std::size_t ivSize() const override { return sizeof vector; }
    const std::vector<Subsample>& subsamples() const override { return m_ranges; }

private:
    static constexpr std::uint8_t vector[] = {1, 2, 3, 4, 5, 6, 7, 8};

    std::shared_ptr<const UVAStreamConfig> m_config;
    std::shared_ptr<const FrameFile::Bytes> m_bytes;
    FrameFile::Frame m_frame;
    double m_time;
    double m_duration = 0;
    bool m_protected = false;
    std::vector<Subsample> m_ranges;
};

/// Takes the events from whatever thread raises them to the one that drives the backend.
class Mailbox final : public UVAClient {
public:
    void deliverEvent(UVAEvent* event) override {
        const std::lock_guard lock(m_mutex);
        m_events.emplace_back(event);
        m_arrived.notify_one();
    }

    /// Null when nothing arrives within the bound.
    std::unique_ptr<UVAEvent> wait(std::chrono::milliseconds bound) {
        std::unique_lock lock(m_mutex);
        if (!m_arrived.wait_for(lock, bound, [this] { return !m_events.empty(); }))
            return nullptr;
        auto event = std::move(m_events.front());
        m_events.pop_front();
        return event;
    }

private:
    std::mutex m_mutex; // guards m_events; leaf
    std::condition_variable m_arrived;
    std::deque<std::unique_ptr<UVAEvent>> m_events;
};

/// Feeds one backend until the end was shown. All of it runs on the thread that made the backend.
class Player {
public:
    Player(UVAMediaBackend& backend, Mailbox& mailbox, const FrameFile& file,
           UVADRMDecrypter* cipher)
        : m_backend(backend), m_mailbox(mailbox), m_file(file), m_cipher(cipher) {}

    /// What went wrong; empty when the end was shown.
    std::string play(std::optional<double> seekTarget) {
        m_seekTarget = seekTarget;
        UVABackend::SourceDescription* sources[] = {new Source(m_file), nullptr};
        if (m_backend.initBackend("", sources, false, true) != UVABackend::Success)
            return "the backend does not take the source; the system log says why";
        m_backend.play();
        while (!m_ended && m_error.empty()) {
            if (auto event = m_mailbox.wait(std::chrono::milliseconds(100)))
                handle(std::move(event));
            watch();
        }
        return m_error;
    }

private:
    void handle(std::unique_ptr<UVAEvent> event);
    void answer(std::unique_ptr<NeedMSEDataEvent> request);
    void tellStart();
    void completeCancel(const CancelDataRequestsAsyncEvent& event);
    void watch();

    UVAMediaBackend& m_backend;
    Mailbox& m_mailbox;
    const FrameFile& m_file;
    UVADRMDecrypter* const m_cipher; // null: the frames stay clear
    std::size_t m_next = 0;          // frame to be fed
    double m_start = 0;              // where playback starts, seconds
    bool m_startDue = true;          // ... which the backend has not been told
    bool m_endTold = false;
    std::optional<double> m_seekTarget;
    double m_position = 0;
    std::chrono::steady_clock::time_point m_moved = std::chrono::steady_clock::now();
    bool m_ended = false;
    std::string m_error;
};

void Player::handle(std::unique_ptr<UVAEvent> event) {
    switch (event->type()) {
    case UVAEvent::NeedMSEData:
        answer(std::unique_ptr<NeedMSEDataEvent>(static_cast<NeedMSEDataEvent*>(event.release())));
        break;
    case UVAEvent::CancelDataRequestsAsync:
        completeCancel(static_cast<const CancelDataRequestsAsyncEvent&>(*event));
        break;
    case UVAEvent::SeekCompletedEx:
        if (static_cast<const SeekCompletedExEvent&>(*event).outcome !=
            SeekCompletedExEvent::SeekOutcome::Succeeded)
            m_error = "the seek failed";
        break;
    case UVAEvent::PlaybackFinished:
        m_ended = true;
        break;
    case UVAEvent::DecodeError:
        m_error = "no decoder was granted; without a main system set NOX_GST_STANDALONE=1";
        break;
    default:
        break;
    }
}

/// The array belongs to the event, which goes back with it.
void Player::answer(std::unique_ptr<NeedMSEDataEvent> request) {
    const std::size_t count = std::min(static_cast<std::size_t>(request->samplesRequested),
                                       m_file.frames.size() - m_next);
    if (count == 0) {
        if (!std::exchange(m_endTold, true))
            m_backend.writeData(request.release(), 0, UVABackend::EndOfStream);
        return;
    }
    if (m_startDue)
        tellStart();
    unsigned int bytes = 0;
    request->samples = new UVASample* [count + 1] {};
    for (std::size_t i = 0; i < count; ++i) {
        auto sample = std::make_unique<Sample>(m_file, m_next++);
        if (m_cipher != nullptr)
            sample->protect(*m_cipher);
        bytes += static_cast<unsigned int>(sample->payloadSize());
        request->samples[i] = sample.release();
    }
    m_backend.writeData(request.release(), bytes, UVABackend::Data);
}

/// All sources start at the time of the first sample. The frame that covers the target begins
/// before it: an empty sample in front says where playback really starts.
void Player::tellStart() {
    m_startDue = false;
    auto event = std::make_unique<NeedMSEDataEvent>(sourceId, 0);
    event->samples = new UVASample* [2] { new Sample(m_start), nullptr };
    m_backend.writeData(event.release(), 0, UVABackend::Data);
}

/// First phase of a seek: what is fed from here on begins at the target. The seek itself is made
/// inside eventCompleted().
void Player::completeCancel(const CancelDataRequestsAsyncEvent& event) {
    m_start = event.position;
    m_startDue = true;
    m_endTold = false;
    m_next = std::min(static_cast<std::size_t>(event.position / m_file.frameDuration),
                      m_file.frames.size());
    m_backend.eventCompleted(&event, true);
}

/// The backend keeps what goes wrong in its pipeline to itself: look whether anything moves.
void Player::watch() {
    constexpr auto patience = std::chrono::seconds(10);
    const auto now = std::chrono::steady_clock::now();
    double position = 0;
    if (m_backend.getPosition(position) == UVABackend::Success && position != m_position) {
        m_position = position;
        m_moved = now;
    }
    if (m_seekTarget && m_position > 0)
        m_backend.setPosition(*std::exchange(m_seekTarget, std::nullopt));
    if (now - m_moved > patience && !m_ended)
        m_error = "nothing moves; GST_DEBUG=2 puts the reasons into the system log";
}

FrameFile load(const char* path) {
    std::ifstream file(path, std::ios::binary);
    return splitFrames({std::istreambuf_iterator<char>(file), {}});
}

using Request = UVAMediaBackend* (*)(unsigned int type, UVAClient* client);
using Release = bool (*)(UVAMediaBackend* backend);

/// The library stays loaded: its threads and the code of its events may outlive the backend.
void* loadBackendLibrary() {
    const char* path = std::getenv("UVA_BACKEND_LIBRARY");
    void* library = dlopen(path != nullptr ? path : "libuvagstbackend.so", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        std::fprintf(stderr, "feed_samples: %s (name it with UVA_BACKEND_LIBRARY)\n", dlerror());
    return library;
}

/// Empty when the end was shown.
std::string run(void* library, const FrameFile& file, std::optional<double> seekTarget,
                UVADRMDecrypter* cipher) {
    const auto request = reinterpret_cast<Request>(dlsym(library, "UVA_RequestBackend"));
    const auto release = reinterpret_cast<Release>(dlsym(library, "UVA_ReleaseBackend"));
    if (request == nullptr || release == nullptr)
        return "UVA_BACKEND_LIBRARY names no backend library";
    Mailbox mailbox;
    UVAMediaBackend* backend = request(UVABackend::AudioElement, &mailbox);
    if (backend == nullptr)
        return "the library gave no backend; its own message above says why";
    if (cipher != nullptr)
        backend->setKeySystem(XorDrm::keySystem);
    std::string error = Player(*backend, mailbox, file, cipher).play(seekTarget);
    release(backend);
    return error;
}

std::string runProtected(void* library, const FrameFile& file) {
    XorDrm drm;
    UVADRMDecrypter* cipher = nullptr;
    if (drm.createDecrypter(cipher, XorDrm::keyId, sizeof XorDrm::keyId, 0) != 1)
        return "no cipher";
    UVA_OfferDRMBackend(XorDrm::keySystem, &drm);
    std::string error = run(library, file, std::nullopt, cipher);
    UVA_OfferDRMBackend(XorDrm::keySystem, nullptr);
    drm.releaseDecrypter(cipher);
    if (error.empty() && drm.decrypters() != 0)
        error = "a decrypter was not given back";
    return error;
}

std::optional<double> toSeconds(const char* text) {
    char* end = nullptr;
    const double seconds = std::strtod(text, &end);
    return end != text && *end == '\0' && seconds >= 0 ? std::optional(seconds) : std::nullopt;
}

} // namespace

int main(int argc, char** argv) {
    const char* how = argc == 3 ? argv[2] : "";
    const bool isProtected = std::strcmp(how, "protected") == 0;
    const auto seekTarget = toSeconds(how);
    if (argc < 2 || argc > 3 || (argc == 3 && !isProtected && !seekTarget)) {
        std::fputs("usage: feed_samples FILE [SECONDS | protected]\n", stderr);
        return 2;
    }
    const FrameFile file = load(argv[1]);
    if (file.frames.empty()) {
        std::fprintf(stderr, "feed_samples: %s has no MP3 or ADTS frame that can be read\n",
                     argv[1]);
        return 1;
    }
    void* library = loadBackendLibrary();
    if (library == nullptr)
        return 1;
    const std::string error =
        isProtected ? runProtected(library, file) : run(library, file, seekTarget, nullptr);
    if (error.empty())
        return 0;
    std::fprintf(stderr, "feed_samples: %s\n", error.c_str());
    return 1;
}
