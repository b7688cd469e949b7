#ifndef NOX_SCREEN_H
#define NOX_SCREEN_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace nox {

/// A picture, rows without padding, 4 bytes a pixel: red, green, blue, 255.
struct Picture {
    int width = 0;  ///< pixels
    int height = 0; ///< pixels
    std::vector<std::uint8_t> rgba;
};

/// Pictures of a sink.
struct PictureCounters {
    std::uint64_t shown = 0;
    std::uint64_t dropped = 0;   ///< late: left out by the decoder or by the output
    std::uint64_t corrupted = 0; ///< of those shown: decoded from damaged data
};

/// What a sink shows. Called from any thread, one call at a time.
class VideoPlane {
public:
    virtual ~VideoPlane();
    /// The picture that is shown now, scaled to width × height, or in its own size when both are 0.
    /// False when nothing is shown.
    virtual bool grab(Picture& picture, int width, int height) = 0;
    virtual void setVisible(bool visible) = 0;
};

/// What a sink plays. Called from any thread, one call at a time.
class AudioOutput {
public:
    virtual ~AudioOutput();
    virtual void setVolume(double volume) = 0; ///< 0 to 1
};

/// The output side of the simulated set, one per process: where the sinks show and play, and what
/// the host's capture, volume and visibility operations act on. On a real set this is hardware.
///
/// Thread-safe. Planes and outputs are called under the screen's lock and so must not call the
/// screen from there; once `remove` has returned they are not called any more. Listeners are called
/// without the lock.
class Screen {
public:
    static Screen& instance();

    /// `sink`: the sink's name, see counters().
    void add(VideoPlane* plane, const std::string& sink);
    void remove(VideoPlane* plane);
    void add(AudioOutput* output);
    void remove(AudioOutput* output);

    /// From the plane of the newest picture; see VideoPlane::grab.
    bool grab(Picture& picture, int width = 0, int height = 0);

    void setVisible(bool visible); ///< holds for planes that come later too
    void setVolume(double volume); ///< holds for outputs that come later too

    /// A plane says that it shows a new picture. Streaming thread.
    void pictureShown(VideoPlane* plane);

    /// A plane adds to what is counted. Streaming thread.
    void count(VideoPlane* plane, const PictureCounters& more);
    /// Since the process began, also of planes that are gone: what the sink of a media source with
    /// this number has shown. It is in the sink's name, behind the last "_" ("halvideosink_3"). 0:
    /// all sinks whose names have none, as those of URLs.
    PictureCounters counters(unsigned int source) const;

    /// Called after each new picture, on the plane's streaming thread, for as long as the returned
    /// handle lives; dropping the handle waits for a call under way on another thread.
    using Listener = std::function<void()>;
    std::shared_ptr<void> listen(Listener listener);

private:
    Screen();
    ~Screen();
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace nox

#endif
