#ifndef HOST_MEDIA_ELEMENT_H
#define HOST_MEDIA_ELEMENT_H

#include "host/capability_query.h"
#include "host/media_source.h"
#include "host/observer.h"
#include "host/picture.h"
#include "uva/uva_backend.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>

namespace host {

class BackendLibrary;
class ElementCore;
class EventLoop;

/// What a backend has asked for, and got, of samples since its element was opened. The last three
/// are faults, the first of the backend, the others of the host.
struct RequestCounts {
    std::uint64_t requests = 0;
    std::uint64_t answers = 0;    ///< fewer: seeks, and the end of playback, make requests void
    std::uint64_t askedAgain = 0; ///< a source asked before it was answered
    std::uint64_t unasked = 0;    ///< samples were given for no request, or twice for one
    std::uint64_t unanswered = 0; ///< too late, though there was something to answer with
};

/// What the host answers when a sink asks for the set's decoder.
enum class ResourcePolicy { Grant, Deny };

/// The pictures of an element, since it was opened.
struct PictureCounters {
    std::uint64_t shown = 0;
    std::uint64_t dropped = 0;   ///< decoded, or not even that, and too late to be shown
    std::uint64_t corrupted = 0; ///< of those shown: with errors in them
};

/// A media element: one backend, one piece of media, from open() to release().
///
/// Thread-safe. The calls return at once and take effect on the event loop, where every operation
/// of the backend is made; what came of them goes to the observer.
class MediaElement {
public:
    /// What an element is made with; none of it changes later.
    struct Options {
        ResourcePolicy resources = ResourcePolicy::Grant;
        std::string userAgent = "uva-host";

        /// How often the position is read, and playback looked at.
        std::chrono::milliseconds tick{100};

        /// Its sources are numbered from here. In a process with several elements numbers that no
        /// other element uses tell their sinks apart.
        SourceId firstSource = 1;

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

        /// What the set has counted for the sink of a source; of a URL's, where sources have no
        /// number, 0. Any thread; may be empty.
        std::function<PictureCounters(SourceId source)> pictures;
    };

    /// What capture() answers.
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
    ///@{
    /// Before one of the two nothing is fetched, fed or shown. Behind the end playback begins anew.
    void play();
    void pause();
    ///@}

    /// Seconds. As of a page's media element: what lies before the start of the media leads to it,
    /// what lies behind the end, once that is known, to that end, and what is no finite number
    /// fails. Answers the number of this seek, from 1, under which Observer::onSeek() tells what
    /// became of it. One seek is under way at a time; one more waits, and a newer request takes its
    /// place. Samples can be sought before anything was played and while paused; of a URL, a seek
    /// before playback has started waits for it.
    std::uint64_t seek(double seconds);

    /// Seconds: where playback is, not older than a tick. From a seek on it is where that leads,
    /// to the last bit, until something is played from there.
    double position() const;

    /// 0 to 1. A set has one: it holds for all elements.
    void setVolume(double volume);
    /// 1 is normal. False when the backend cannot play at that rate: nothing changes. Before open()
    /// it is the normal one alone.
    bool setRate(double rate);
    /// Of the whole media, seconds. A backend may keep a longer one.
    void setDuration(double seconds);

    /// Asks this element's backend; it is requested for that if need be.
    std::future<CapabilityAnswer> canPlayType(UVABackend::ContentDescription description);

    /// What the set has counted since open().
    PictureCounters counters() const;
    /// None is found unanswered before a seek or the release.
    RequestCounts requests() const;

    // Sources, of an element that is, or will be, given a MediaSource.

    /// Adds a source, also while others play; one of a kind at a time. It is fed from where
    /// playback is. A stream whose samples change their codec is attached anew where they do. Null
    /// is none: 0.
    SourceId attach(std::unique_ptr<SampleStream> stream);
    /// Takes a source away that attach() gave a number to; unknown ones do not matter.
    void detach(SourceId source);
    /// Detaches the source of this kind and attaches it again. The backend seeks to where it is.
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
