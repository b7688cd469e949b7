#ifndef UVA_MEDIA_BACKEND_H
#define UVA_MEDIA_BACKEND_H

#include "uva/uva_backend.h"
#include "uva/uva_key_system_config.h"
#include "uva/uva_time.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

class UVAEvent;

/// A backend that plays one media element.
///
/// A backend library exports two functions with C linkage: `UVA_RequestBackend(type, client)`
/// answers a backend or null, `UVA_ReleaseBackend(backend)` deletes it.
///
/// Seeking has two phases: setPosition() raises CancelDataRequestsAsyncEvent, the client completes
/// it, and SeekCompletedExEvent tells the outcome.
class UVAMediaBackend : public UVABackend {
public:
    /// Rates at which the backend plays, 1.0 is normal. Both ends are in it.
    struct SpeedRange {
        double minimum = 1.0, maximum = 1.0;
    };

    UVAMediaBackend(UVABackendType type, UVAClient* client);
    ~UVAMediaBackend() override;

    ///@{
    /// `sources` is a null-terminated list; the descriptions in it pass to the backend, the list
    /// itself stays the caller's. The first form plays audio and video.
    virtual int initBackend(const char* origin, SourceDescription** sources, bool autoplay);
    virtual int initBackend(const char* origin, SourceDescription** sources, bool autoplay,
                            bool audioOnly) = 0;
    ///@}

    virtual int attachSource(SourceDescription* source) = 0; ///< takes ownership
    /// Ends a media source, stops its part of the pipeline and deletes its description and samples.
    /// Waits for its streaming thread. False for an id that is not there.
    virtual bool removeSource(unsigned int id) = 0;

    /// Where the picture is shown, in the pixels of setLogicalScreenSize(), and which part of it.
    /// The main system places the plane; the clip counts where the set has one.
    virtual int setVideoWindowAndClip(const Rect& window, const Rect& clip) = 0;
    /// Which of the set's outputs shows the picture. Failure for one that it has not; 0 is there.
    virtual int setVideoOutputID(int id);

    /// Size in pixels (-1: not known yet) and the width of a pixel over its height.
    virtual int getNativeSize(int& width, int& height, double& pixelAspectRatio) = 0;

    /// Copies the picture on screen: 4 bytes a pixel (red, green, blue, 255), rows without padding,
    /// of the size that startCapture() set, else of the picture's own. Failure when `size` is not
    /// exactly that many bytes, NotAvailable when nothing is shown.
    virtual int getVideoFrame(unsigned char* frame, unsigned int size);

    /// From now on a VideoFrameAvailableEvent follows each new picture, one at a time: the next
    /// comes only after frameConsumed(). Width and height in pixels, both positive.
    virtual int startCapture(int width, int height);
    virtual int frameConsumed(unsigned int frame, bool wanted); ///< false: no more for now
    /// The host has taken the decoders of these media sources: as removeSource() for each. Failure
    /// when one of them is not there.
    virtual int resourcesReleased(const std::vector<unsigned int>& sources);
    /// Ends what startCapture() began. Failure when nothing was begun.
    virtual int stopCapture();

    /// A null-terminated array allocated with new[], its ranges with new; the caller deletes both.
    virtual int getSeekableTimeRanges(ByteRange** bytes, TimeRange**& ranges) = 0;
    /// Appends what could be played without more data, seconds. Of a media source, by its id, what
    /// has been written and not been played; of a URL a guess, from 0 on. NotAvailable while that
    /// is not known. `bytes`, what the host itself holds, may be empty.
    virtual int getBufferedTimeRanges(unsigned int id, const std::vector<ByteRange>& bytes,
                                      std::vector<TimeRange>& ranges) = 0;

    /// Whether a backend of this kind takes the source at all; its format is asked with
    /// canPlayType().
    virtual int canPlaySource(const SourceDescription& source) = 0;

    virtual int load(); ///< pre-rolls, as pause() does
    /// Plays as soon as there is data. Returns before anything is shown.
    virtual int play() = 0;
    virtual int suspend(); ///< pauses and gives the decoders back; the player is gone afterwards

    /// Wall-clock time of position 0, seconds since 1970; NotAvailable when the media has none.
    virtual int getStartDate(double& seconds);
    /// Holds the picture, or shows the first one: media are fetched and decoded up to there.
    virtual int pause() = 0;
    virtual int pauseAsync(); ///< pause(), then PauseFinishedEvent
    /// 1.0 is normal. Failure for a rate that getPlaybackSpeedRanges() does not have: nothing
    /// changes.
    virtual int setPlaybackRate(double rate) = 0;

    /// 0 (silent) to 1; values outside are pulled in, not-a-number is refused. The set has one
    /// audio output: the value holds for it as a whole.
    virtual int setVolume(double volume);

    /// Seconds. NotAvailable until it is known.
    virtual int getDuration(double& seconds) = 0;
    /// The duration of a media source that is known by now, milliseconds.
    virtual int setContentSize(unsigned int id, unsigned long long milliseconds) = 0;

    /// Seconds, from getPosition(); NotAvailable (and 0) while there is no player.
    virtual int getPosition(double& seconds);
    /// Where playback is. Its `position` is negative while there is no player.
    virtual UVATime getPosition() = 0;

    /// 1 when the seek was started, 0 when it was refused. A URL is sought from the first
    /// NewMetadataEvent on, earlier the seek fails; media sources may be at any time.
    virtual int setPosition(double seconds) = 0;
    virtual int adjustPosition(const UVATime& time); ///< seeks to the time's position

    virtual int setVisibility(bool visible); ///< shows or hides the picture plane

    /// Bytes that so many seconds of the media take; NotAvailable until the size is known.
    virtual int getSizeFromDuration(double seconds, unsigned long long& bytes);

    /// Hands a NeedMSEDataEvent back with its samples; takes ownership of it. Any thread, also from
    /// inside the delivery of an event.
    virtual int writeData(UVAEvent* event, unsigned int bytes, WriteDataStatus status) = 0;

    /// Whether media of this description can be played: type, codecs, and the limits of the set.
    /// Parts that are not said do not count.
    virtual bool canPlayType(const ContentDescription& description) = 0;
    /// Whether the element fills the screen; the window is still the host's to set.
    virtual int setFullScreen(bool on) = 0;

    /// A null-terminated array allocated with new[]; the texts with malloc. The caller frees both.
    virtual bool getSupportedMimetypes(char**& types) = 0;
    /// How often the media are played. Not supported: the answer is Success, and they are played
    /// once.
    virtual int setLoop(int times) = 0;
    /// Whether fetched media may be kept. A backend without a store answers Success.
    virtual int setCache(bool on);

    /// A text track that the page adds; the host shows it itself. The texts need only live for the
    /// call.
    virtual int addTrack(AVComponent::Kind kind, const char* url, const char* language,
                         const char* label) = 0;

    /// Queues a source behind the present one. On Failure the description stays the caller's.
    virtual int queue(SourceDescription* source);

    ///@{
    /// Which audio or video component of MultiComponentChangedEvent is to play. One of a kind does:
    /// a backend with one of each answers Success and plays it.
    virtual int selectComponent(AVComponent* component) = 0;
    virtual int unselectComponent(AVComponent* component) = 0;
    ///@}

    ///@{
    /// Components that something else than the backend plays; they stay the caller's.
    virtual int registerExternalComponents(const std::vector<AVComponent*>& components);
    virtual int unregisterExternalComponents(const std::vector<AVComponent*>& components);
    ///@}

    /// The page listens to an event of this name, or no longer. Failure for null.
    virtual int onListenerChanged(const char* name);
    virtual int getBytesInBuffer(unsigned long long& bytes); ///< NotAvailable when nobody counts

    ///@{
    /// Which content protection decrypts. The backend looks the system up, see
    /// UVA_FindDRMBackend(), which therefore has to know it by now. The first form has flags,
    /// client and value 0.
    virtual int setKeySystem(const char* id);
    virtual int setKeySystem(const UVAKeySystemConfig& config) = 0;
    ///@}

    /// An attribute of the page's element whose name begins with "data-". Failure for null.
    virtual int passDataAttribute(const char* name, const char* value);
    /// Appends the rates for setPlaybackRate().
    virtual int getPlaybackSpeedRanges(std::vector<SpeedRange>& ranges) = 0;

    /// An inactive element keeps its player and pauses; ActiveStateChangedEvent follows a change.
    virtual int setActive(bool active);
    /// Preferences of the user, by name; those that a backend does not know do not matter.
    virtual int setPrefs(const std::map<std::string, std::string>& prefs);

private:
    struct State;
    const std::unique_ptr<State> m_state;
};

#endif
