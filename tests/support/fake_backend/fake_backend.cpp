#include "fake_backend.h"

#include "uva/uva_client.h"
#include "uva/uva_event.h"
#include "uva/uva_media_backend.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

// The destructor that the library behind the interface leaves to the backend.
BufferingProgressEvent::~BufferingProgressEvent() = default;
BufferingStreamBufferedEvent::~BufferingStreamBufferedEvent() = default;

namespace {

using support::FakeControl;
using support::SeekBehaviour;

FakeControl& control() {
    static FakeControl instance;
    return instance;
}

/// Plays nothing. Position and events come from the test; or, with FAKE_CLIP_SECONDS in the
/// environment, from a thread that plays a clip of that length and stops for ever where
/// FAKE_CLIP_FAULT says: "opening", "decoder", "seek", "end".
class FakeBackend final : public UVAMediaBackend {
public:
    using UVAMediaBackend::getPosition;
    using UVAMediaBackend::initBackend;
    using UVAMediaBackend::setKeySystem;

    FakeBackend(UVABackendType type, UVAClient* client) : UVAMediaBackend(type, client) {
        ++control().living;
        control().client = client;
        control().position = 0;
    }

    ~FakeBackend() override {
        control().note("release");
        stopClip();
        m_uvaClient->deliverEvent(new PlaybackFinishedEvent(0, 0)); // as a draining bus may
        --control().living;
    }

    int initBackend(const char*, SourceDescription** sources, bool, bool) override {
        control().note("init " + std::string(sources[0]->url));
        for (auto** source = sources; *source != nullptr; ++source)
            delete *source;
        return control().refuseMedia ? Failure : Success;
    }
    int play() override {
        control().note("play");
        m_uvaClient->deliverEvent(new BufferingStreamUnderrunEvent);
        m_uvaClient->deliverEvent(new BufferingProgressEvent);
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
    int getDuration(double&) override { return NotAvailable; }
    int setPosition(double seconds) override {
        control().note("seek " + std::to_string(static_cast<int>(seconds)));
        const SeekBehaviour behaviour = control().seek;
        while (behaviour == SeekBehaviour::Block && !control().unblock)
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
        if (control().seek == SeekBehaviour::Complete && !isFaulty("seek"))
            finishSeek(SeekCompletedExEvent::SeekOutcome::Succeeded);
        return Success;
    }

    int attachSource(SourceDescription* source) override {
        delete source;
        return Failure;
    }
    bool removeSource(unsigned int) override { return false; }
    int setVideoWindowAndClip(const Rect& window, const Rect&) override {
        control().note("window " + std::to_string(window.width));
        return Success;
    }
    int getNativeSize(int& width, int& height, double& ratio) override {
        width = 2;
        height = 1;
        ratio = 1.0;
        return Success;
    }
    int startCapture(int, int) override { return Success; }
    int stopCapture() override { return Success; }
    int getVideoFrame(unsigned char* frame, unsigned int size) override {
        std::memset(frame, 255, size);
        return Success;
    }
    int getSeekableTimeRanges(ByteRange**, TimeRange**&) override { return Failure; }
    int getBufferedTimeRanges(unsigned int, const std::vector<ByteRange>&,
                              std::vector<TimeRange>&) override {
        return Failure;
    }
    int canPlaySource(const SourceDescription&) override { return Success; }
    int setPlaybackRate(double) override { return Failure; }
    int setContentSize(unsigned int, unsigned long long) override { return Failure; }
    int writeData(UVAEvent* event, unsigned int, WriteDataStatus) override {
        delete event;
        return Failure;
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
    int setKeySystem(const UVAKeySystemConfig&) override { return Failure; }
    int getPlaybackSpeedRanges(std::vector<SpeedRange>&) override { return Failure; }

private:
    void finishSeek(SeekCompletedExEvent::SeekOutcome outcome) {
        m_uvaClient->deliverEvent(new SeekCompletedExEvent(outcome));
    }

    static bool isFaulty(const char* what) {
        const char* fault = std::getenv("FAKE_CLIP_FAULT");
        return fault != nullptr && std::strcmp(fault, what) == 0;
    }

    void playClip(double length) {
        if (isFaulty("opening"))
            return;
        const double start = UVATime::Timestamp();
        m_uvaClient->deliverEvent(new BackendResourceRequestAsyncEvent(false));
        if (isFaulty("decoder"))
            return;
        m_uvaClient->deliverEvent(new NewMetadataEvent(length, 2, 1, 1.0));
        while (!m_stopClip && UVATime::Timestamp() - start < length) {
            control().position = UVATime::Timestamp() - start;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        if (!m_stopClip && !isFaulty("end"))
            m_uvaClient->deliverEvent(new PlaybackFinishedEvent(0, 0));
    }

    void stopClip() {
        m_stopClip = true;
        if (m_clip.joinable())
            m_clip.join();
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
    if (control().giveNothing)
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
