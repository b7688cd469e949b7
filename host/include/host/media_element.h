#ifndef HOST_MEDIA_ELEMENT_H
#define HOST_MEDIA_ELEMENT_H

#include "host/media_source.h"
#include "host/observer.h"
#include "host/picture.h"
#include "uva/uva_backend.h"

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>

namespace host {

class BackendLibrary;
class ElementCore;
class EventLoop;

/// What the host answers when a sink asks for the set's decoder.
enum class ResourcePolicy { Grant, Deny };

/// A media element: one backend, one piece of media, from open() to release().
///
/// Thread-safe. The calls return at once and take effect on the event loop, where every operation
/// of the backend is made; what came of them goes to the observer.
class MediaElement {
public:
    struct Options {
        ResourcePolicy resources = ResourcePolicy::Grant;
        std::string userAgent = "uva-host";

        /// How often the position is read.
        std::chrono::milliseconds tick{100};

        /// Playback that does not get on has failed; a backend keeps most errors of the media to
        /// itself. Each phase (connecting, opening, ...) has a bound of its own; this one stands in
        /// for all of them. 0: wait for ever.
        std::optional<std::chrono::milliseconds> noProgress;
        /// How long keys are known to take: waiting for one may take so much longer.
        std::chrono::milliseconds keyDelay{0};

        /// Decoders come from a main system: NOX_GST_STANDALONE is not set.
        bool mainSystem = true;

        /// The first error that the framework beneath the backend has reported since the last call;
        /// empty: none. What does not move any more has failed with it, soon. Called on the event
        /// loop; may be empty.
        std::function<std::string()> takeError;
    };

    struct Capture {
        Picture picture;
        std::string error; ///< empty: the picture is there
    };

    /// An operation of the backend that has not returned yet.
    struct Operation {
        std::string name;
        Clock::time_point since;
    };

    /// The observer must live until release() has returned.
    MediaElement(std::shared_ptr<const BackendLibrary> library, std::shared_ptr<EventLoop> loop,
                 Observer& observer, Options options);

    /// As release() with a bound of ten seconds.
    ~MediaElement();

    MediaElement(const MediaElement&) = delete;
    MediaElement& operator=(const MediaElement&) = delete;

    /// Requests the backend and gives it the media. Once an element; later calls do nothing.
    void open(std::string uri);
    /// The same with samples in place of a URL.
    void openSource(MediaSource source);
    void play();
    void pause();

    /// Seconds. One seek is under way at a time; one more waits, and a newer request takes its
    /// place. A seek before playback has started waits for it.
    void seek(double seconds);

    /// Of an element that was given a MediaSource: detaches the source of this kind and attaches it
    /// again. The backend seeks to where it is.
    void reattach(StreamInfo::Kind kind);
    /// ... keys have come, or a stream has been filled: samples that were held back go on.
    void resumeFeeding();

    /// In a screen of 1280 by 720.
    void setWindow(const UVABackend::Rect& window);

    /// The picture on screen in its own size.
    std::future<Capture> capture();

    /// Ends playback and hands the backend back. Once it has returned the observer is not called
    /// any more. False when the backend did not return within the bound: the event loop's thread
    /// hangs in it, and both are left behind; later calls answer the same. From one thread, and
    /// not from the observer.
    bool release(std::chrono::milliseconds bound);

    /// What the backend is busy with: how a front end notices one that hangs.
    std::optional<Operation> operationUnderWay() const;

private:
    const std::shared_ptr<EventLoop> m_loop;
    const std::shared_ptr<ElementCore> m_core;
    std::optional<bool> m_released; // what release() answered
};

} // namespace host

#endif
