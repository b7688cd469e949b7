#ifndef UVA_NATIVE_PLAYER_CORE_H
#define UVA_NATIVE_PLAYER_CORE_H

#include "event_queue.h"
#include "host/media_element.h"
#include "host/track_buffer.h"
#include "pipeline_errors.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace uva_native {

/// A media element whose tracks are filled from Node's thread and which tells Node what becomes of
/// it. It feeds itself: Node's loop may be busy for as long as it likes.
///
/// Bound to Node's thread, but for release(), which is thread-safe, and the observer's calls, which
/// come on the runtime's loop.
class PlayerCore final : public host::Observer {
public:
    using Kind = host::StreamInfo::Kind;

    /// The runtime must have a library.
    explicit PlayerCore(std::shared_ptr<EventQueue> events);
    ~PlayerCore() override;

    host::MediaElement& element() { return m_element; }

    host::SourceId addTrack(Kind kind, const std::string& mimeType);
    bool removeTrack(host::SourceId track); ///< false: there is none
    host::TrackBuffer* buffer(host::SourceId track);
    void setEnded(bool ended);

    void open(double start, double duration, std::uint64_t session);
    void setKeySession(std::uint64_t session);

    /// For a person: what the buffers hold.
    std::string describe() const;

    /// Hands the backend back. The observer is not called any more afterwards. Twice is harmless:
    /// the second caller waits for the first. False when the backend hangs.
    bool release(std::chrono::milliseconds bound);

    /// All that have not been released, one after another: the process ends.
    static void releaseAll(std::chrono::milliseconds bound);

private:
    struct Track {
        Kind kind = Kind::Video;
        std::unique_ptr<host::TrackBuffer> buffer;
        host::SourceId source = 0; ///< 0: another one of this kind is played
    };

    void onRecord(const host::Record& record) override;
    void onStatus(const host::Status& status) override;
    void onSeek(const host::SeekResult& result) override;
    void onEnd(double position) override;
    void onStarved(host::SourceId source) override;
    void onFilled(host::SourceId source) override;
    void onKeyNeeded(host::SourceId source, const host::KeyBytes& id, double time) override;

    host::MediaElement::Options elementOptions();
    void attachOneOf(Kind kind);
    double trackOf(host::SourceId source);
    void tellOfState(const host::Status& status);
    void tellOfMedia(const host::Status& status);

    const std::shared_ptr<EventQueue> m_events;
    const std::uint64_t m_keyPlace;
    std::map<host::SourceId, Track> m_tracks;
    host::SourceId m_lastTrack = 0;
    bool m_ended = false;

    std::mutex m_sourceMutex;
    std::map<host::SourceId, host::SourceId> m_trackOfSource; // guarded

    // The runtime's loop:
    host::Status m_told; // what events have said
    PipelineErrors m_errors;

    std::mutex m_releaseMutex;
    bool m_released = false; // guarded
    host::MediaElement m_element;
};

} // namespace uva_native

#endif
