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
    /// Shows the plane, or hides it.
    virtual void setVisible(bool visible) = 0;
};

/// What a sink plays. Called from any thread, one call at a time.
class AudioOutput {
public:
    virtual ~AudioOutput();
    virtual void setVolume(double volume) = 0; ///< 0 to 1
};

/// A picture at the moment at which it is shown.
struct ShownPicture {
    std::string sink;    ///< the sink's name
    double position = 0; ///< where in the media it begins, seconds; NaN: not known
    bool still = false;  ///< the sink stands at it, and shows it once more when it goes on
    int width = 0;       ///< pixels
    int height = 0;      ///< pixels
    std::vector<std::uint8_t> luma;        ///< a byte a pixel, rows without padding
    int chromaWidth = 0, chromaHeight = 0; ///< of the subsampled components; 0: it is grey
    std::vector<std::uint8_t> cb, cr;      ///< a byte a sample, rows without padding
};

/// Sound at the moment at which its first sample is played.
struct PlayedSound {
    std::string sink;           ///< the sink's name
    double position = 0;        ///< where in the media it begins, seconds; NaN: not known
    int rate = 0;               ///< samples a second
    std::vector<float> samples; ///< of the first channel, -1 to 1
};

/// Sees and hears all that the sinks put out. Called on their streaming threads, by several at a
/// time; what it does delays them.
class OutputTap {
public:
    virtual ~OutputTap();
    /// A sink shows this picture now.
    virtual void onPicture(ShownPicture picture) = 0;
    /// A sink plays this from now on.
    virtual void onSound(PlayedSound sound) = 0;
};

/// The output side of the simulated set, one per process: where the sinks show and play, and what
/// the host's capture, volume and visibility operations act on. On a real set this is hardware.
///
/// Thread-safe. Planes and outputs are called under the screen's lock and so must not call the
/// screen from there; once `remove` has returned they are not called any more. Listeners are called
/// without the lock.
class Screen {
public:
    /// The one of the process.
    static Screen& instance();

    /// `sink`: the sink's name, see counters().
    void add(VideoPlane* plane, const std::string& sink);
    /// Waits for a call of the plane that is under way.
    void remove(VideoPlane* plane);
    ///@{
    /// The same for what plays sound.
    void add(AudioOutput* output);
    void remove(AudioOutput* output);
    ///@}

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
    /// The source's number in a sink's name; 0: none.
    static unsigned int sourceOf(const std::string& sink);

    /// Called after each new picture, on the plane's streaming thread, for as long as the returned
    /// handle lives; dropping the handle waits for a call under way on another thread.
    using Listener = std::function<void()>;
    /// Adds a listener; see there.
    std::shared_ptr<void> listen(Listener listener);

    /// The tap is called for as long as the returned handle lives; dropping that waits for calls
    /// under way. Sinks that begin meanwhile render to no device, and leave out nothing that is
    /// late: what the tap is given is what is shown, at its time. One at a time: an earlier one is
    /// not called any more.
    std::shared_ptr<void> tap(OutputTap& tap);
    bool isTapped() const;                   ///< whether pictures and sound are worth their copies
    void pictureShown(ShownPicture picture); ///< for the tap. Streaming thread.
    void soundPlayed(PlayedSound sound);     ///< for the tap. Streaming thread.

private:
    Screen();
    ~Screen();
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace nox

#endif
