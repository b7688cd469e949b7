#include "fake_backend.h"

#include "uva/uva_client.h"
#include "uva/uva_event.h"
#include "uva/uva_media_backend.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>

// The destructor that the library behind the interface leaves to the backend.
BufferingProgressEvent::~BufferingProgressEvent() = default;
BufferingStreamBufferedEvent::~BufferingStreamBufferedEvent() = default;

namespace {

using support::FakeAnswers;
using support::FakeControl;
using support::SeekBehaviour;

FakeControl& control() {
    static FakeControl instance;
    return instance;
}

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

/// Plays nothing. Position and events come from the test; or, with FAKE_CLIP_SECONDS in the
/// environment, from a thread that plays a clip of that length, with FAKE_CLIP_STALLS without end.
/// With FAKE_ASKS ("once", "twice", "for nobody") it asks for samples when it is played.
/// With FAKE_LEAVES_PROCESS each leaves a process behind. With FAKE_SEEKS=crash or =hang no seek
/// comes back.
class FakeBackend final : public UVAMediaBackend {
public:
    using UVAMediaBackend::getPosition;
    using UVAMediaBackend::initBackend;
    using UVAMediaBackend::setKeySystem;

    FakeBackend(UVABackendType type, UVAClient* client) : UVAMediaBackend(type, client) {
        ++control().living;
        control().client = client;
        control().position = 0;
        if (answers().asksEarly)
            client->deliverEvent(new BackendResourceRequestAsyncEvent(false));
    }

    ~FakeBackend() override {
        control().note("release");
        m_stopClip = true;
        if (m_clip.joinable())
            m_clip.join();
        m_uvaClient->deliverEvent(new PlaybackFinishedEvent(0, 0)); // as a draining bus may
        --control().living;
        if (std::getenv("FAKE_LEAVES_PROCESS") != nullptr && fork() == 0)
            for (;;)
                pause();
    }

    int initBackend(const char*, SourceDescription** sources, bool, bool) override {
        for (auto** source = sources; *source != nullptr; ++source)
            take("init ", *source);
        return answers().refuseMedia ? Failure : Success;
    }
    int play() override {
        control().note("play");
        m_uvaClient->deliverEvent(new BufferingStreamUnderrunEvent);
        m_uvaClient->deliverEvent(new BufferingProgressEvent);
        askForSamples();
        const char* length = std::getenv("FAKE_CLIP_SECONDS");
        if (length != nullptr && !m_clip.joinable())
            m_clip = std::thread([this, seconds = std::atof(length)] { playClip(seconds); });
        return Success;
    }
    int pause() override {
        control().note("pause");
        return Success;
    }
    UVATime getPosition() override {
        const double now = control().position;
        return {now, 1.0, UVATime::Timestamp(), now};
    }
    int getDuration(double& seconds) override {
        seconds = answers().duration;
        return seconds > 0 ? Success : NotAvailable;
    }
    int setPosition(double seconds) override {
        control().note("seek " + number(seconds));
        if (const char* const how = std::getenv("FAKE_SEEKS"))
            endIn(how);
        const SeekBehaviour behaviour = answers().seek;
        while (behaviour == SeekBehaviour::Block && !answers().unblock)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        if (behaviour == SeekBehaviour::Refuse) {
            finishSeek(SeekCompletedExEvent::SeekOutcome::Failed);
            return 0;
        }
        m_insideSetPosition = true;
        m_uvaClient->deliverEvent(new CancelDataRequestsAsyncEvent(seconds));
        m_insideSetPosition = false;
        return 1;
    }
    int eventCompleted(const UVAAsyncEvent* event, bool success) override {
        if (event->type() == UVAEvent::BackendResourceRequestAsync) {
            control().note(success ? "granted" : "denied");
            return Success;
        }
        control().note(m_insideSetPosition ? "cancelled too early" : "cancelled");
        if (answers().seek == SeekBehaviour::Complete)
            finishSeek(SeekCompletedExEvent::SeekOutcome::Succeeded);
        return Success;
    }

    int attachSource(SourceDescription* source) override {
        take("attach ", source);
        return answers().refuseSource ? Failure : Success;
    }
    bool removeSource(unsigned int id) override {
        control().note("remove " + std::to_string(id));
        return true;
    }
    int setVideoWindowAndClip(const Rect& window, const Rect& clip) override {
        std::string text = "window";
        for (const auto& rect : {window, clip})
            for (const int value : {rect.x, rect.y, rect.width, rect.height})
                text += " " + std::to_string(value);
        control().note(text);
        return Success;
    }
    int getNativeSize(int& width, int& height, double& ratio) override {
        width = 2;
        height = answers().height;
        ratio = 1.0;
        return Success;
    }
    int startCapture(int, int) override { return answers().startCapture; }
    int stopCapture() override { return Success; }
    int getVideoFrame(unsigned char* frame, unsigned int size) override {
        std::memset(frame, 255, size);
        return answers().frame;
    }
    int getSeekableTimeRanges(ByteRange**, TimeRange**&) override { return Failure; }
    int getBufferedTimeRanges(unsigned int id, const std::vector<ByteRange>&,
                              std::vector<TimeRange>& ranges) override {
        const double end =
            id <= std::size(answers().bufferedTo) ? answers().bufferedTo[id - 1].load() : -1;
        if (end >= 0)
            ranges = {{0, end / 4}, {end / 2, end}};
        return Success;
    }
    int canPlaySource(const SourceDescription&) override { return Success; }
    int setPlaybackRate(double) override { return Failure; }
    int setContentSize(unsigned int, unsigned long long) override { return Failure; }
    int writeData(UVAEvent* event, unsigned int bytes, WriteDataStatus status) override {
        const std::unique_ptr<NeedMSEDataEvent> data(static_cast<NeedMSEDataEvent*>(event));
        std::string text = "write " + std::to_string(data->sourceId) + ":";
        for (auto** sample = data->samples; sample != nullptr && *sample != nullptr; ++sample)
            text += ((*sample)->payload() == nullptr ? " from " : " ") + number((*sample)->pts());
        control().note(text + (bytes > 0 ? ", " + std::to_string(bytes) + " bytes" : "") +
                       (status == EndOfStream ? " end" : ""));
        return Success;
    }
    bool canPlayType(const ContentDescription&) override { return false; }
    int setFullScreen(bool) override { return Failure; }
    bool getSupportedMimetypes(char**&) override { return false; }
    int setLoop(int) override { return Failure; }
    int addTrack(AVComponent::Kind, const char*, const char*, const char*) override {
        return Failure;
    }
    int selectComponent(AVComponent*) override { return Failure; }
    int unselectComponent(AVComponent*) override { return Failure; }
    int setKeySystem(const UVAKeySystemConfig& config) override {
        control().note("keys of " + std::string(config.keySystemId));
        return Success;
    }
    int getPlaybackSpeedRanges(std::vector<SpeedRange>&) override { return Failure; }

private:
    void finishSeek(SeekCompletedExEvent::SeekOutcome outcome) {
        m_uvaClient->deliverEvent(new SeekCompletedExEvent(outcome));
    }

    static FakeAnswers& answers() { return *control().answers; }

    static void endIn(const std::string& how) {
        if (how == "crash")
            std::abort();
        for (;;)
            ::pause();
    }

    static void take(const char* what, SourceDescription* source) {
        control().note(what + std::string(source->url != nullptr ? source->url : source->mimeType) +
                       (source->type != SourceDescription::MseStreaming
                            ? ""
                            : " " + std::to_string(source->sourceId) + ", " +
                                  std::to_string(source->durationMs) + " ms"));
        delete source;
    }

    void playClip(double length) {
        const double start = UVATime::Timestamp();
        m_uvaClient->deliverEvent(new BackendResourceRequestAsyncEvent(false));
        m_uvaClient->deliverEvent(new NewMetadataEvent(length, 2, 1, 1.0));
        while (!m_stopClip && UVATime::Timestamp() - start < length) {
            control().position = UVATime::Timestamp() - start;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        if (!m_stopClip && std::getenv("FAKE_CLIP_STALLS") == nullptr)
            m_uvaClient->deliverEvent(new PlaybackFinishedEvent(0, 0));
    }

    /// On the host's loop, which answers nothing meanwhile.
    void askForSamples() {
        const std::string how = std::getenv("FAKE_ASKS") != nullptr ? std::getenv("FAKE_ASKS") : "";
        constexpr unsigned int first = 1, nobody = 99;
        for (int i = how.empty() ? 0 : how == "twice" ? 2 : 1; i > 0; --i)
            m_uvaClient->deliverEvent(
                new NeedMSEDataEvent(how == "for nobody" ? nobody : first, 1));
    }

    std::thread m_clip;
    std::atomic<bool> m_stopClip{false};
    bool m_insideSetPosition = false; // event loop
};

} // namespace

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED FakeControl* fakeBackendControl();
EXPORTED UVAMediaBackend* UVA_RequestBackend(unsigned int type, UVAClient* client);

FakeControl* fakeBackendControl() {
    return &control();
}

UVAMediaBackend* UVA_RequestBackend(unsigned int type, UVAClient* client) {
    if (control().answers->giveNothing)
        return nullptr;
    return new FakeBackend(static_cast<UVABackend::UVABackendType>(type), client);
}

#ifndef FAKE_WITHOUT_RELEASE
EXPORTED bool UVA_ReleaseBackend(UVAMediaBackend* backend);

bool UVA_ReleaseBackend(UVAMediaBackend* backend) {
    delete backend;
    return true;
}
#endif
