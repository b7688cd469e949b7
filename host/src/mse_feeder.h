#ifndef HOST_MSE_FEEDER_H
#define HOST_MSE_FEEDER_H

#include "host/event_loop.h"
#include "host/media_source.h"
#include "request_ledger.h"
#include "uva/uva_backend.h"
#include "uva/uva_event.h"

#include <atomic>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace host {

/// Seconds; 0, which is unknown, for what is no length that a backend takes.
double knownDuration(double seconds);

/// Answers a backend's requests for samples. Bound to the element's loop. Streams that may block
/// are read on a thread of their own, so that a slow file or network holds nothing up; what comes
/// into the others answers an open request at once.
class MseFeeder final : public std::enable_shared_from_this<MseFeeder> {
public:
    struct Request {
        std::unique_ptr<NeedMSEDataEvent> event; ///< null: none
        RequestLedger::Number number = 0;        ///< 0: the host's own, which answers nothing
    };

    /// Called on the loop.
    class Client {
    public:
        virtual ~Client();
        /// The streams are there: sources can be described.
        virtual void feederOpened() = 0;
        virtual void feederFailed(const std::string& reason) = 0;
        /// Samples are held back until this key is there and resume() was called.
        virtual void keyNeeded(SourceId source, const KeyBytes& id, double time) = 0;
        /// The first encrypted samples are about to be written, or to wait for their key.
        virtual void protectionMet() = 0;
        virtual void writeData(Request answered, unsigned int samples, unsigned int bytes,
                               UVABackend::WriteDataStatus status) = 0;
        /// What the backend was given up to this time (seconds) is not what the stream has any
        /// more.
        virtual void outdated(double until) = 0;
    };

    struct SourceInfo {
        SourceId id = 0;
        StreamInfo::Kind kind = StreamInfo::Kind::Video;
        std::optional<Clock::time_point> waitsSince; ///< that long a request has been open
        bool isBlocked = false; ///< ... and nothing is there that could answer it
        bool ended = false;     ///< the backend has been told of the end
        /// What follows has another codec, from this time on (seconds): once what was fed has been
        /// played, which is told to end there, it is to be attached anew. See takeCodec().
        std::optional<double> changesCodecAt;
        std::optional<double> fedUntil; ///< seconds; since it was moved last
    };

    /// The client outlives stop(). The streams that the source opens are numbered by `nextId`.
    MseFeeder(std::shared_ptr<EventLoop> loop, MediaSource source, Client& client,
              std::function<SourceId()> nextId);
    ~MseFeeder();
    MseFeeder(const MseFeeder&) = delete;
    MseFeeder& operator=(const MseFeeder&) = delete;

    void open();
    /// Fed from `seconds` on.
    void add(SourceId id, std::shared_ptr<SampleStream> stream, double seconds);
    bool remove(SourceId id);
    std::vector<SourceInfo> sources() const;
    /// For attachSource(), which takes it. Null for an unknown one.
    std::unique_ptr<UVABackend::SourceDescription> describe(SourceId id) const;
    /// From now on the source is described with the codec of the sample that is next.
    void takeCodec(SourceId id);
    void setDuration(double seconds) { m_duration = seconds; } ///< of the whole; 0: unknown

    /// Answered as soon as samples have been read.
    void request(Request request);
    /// Playback is to begin elsewhere; false when something was given to the backend already.
    bool begin(double seconds);
    /// Drops what was requested; later requests are answered from this time on, seconds.
    void seek(double seconds);
    /// The same for one source, which was attached anew.
    void restart(SourceId id, double seconds);
    /// Whether a request stays open because the key is missing.
    bool waitsForKey() const;
    /// The backend has been told of the end of all sources; there is one.
    bool hasEnded() const;
    /// A key has come, or a stream has been filled.
    void resume();
    /// Nothing is delivered any more. Waits for the reading thread, two seconds at most.
    void stop();

private:
    struct Source {
        SourceInfo info;
        std::shared_ptr<SampleStream> stream;
        std::string mimeType;                      // of the codec that the backend knows it with
        Request request;                           // to be answered
        std::deque<std::unique_ptr<Sample>> ready; // read and not delivered
        unsigned int round = 0; // of reading; what was read in an earlier one is dropped
        double start = 0;       // where its samples begin, seconds
        bool startDue = true;   // ... which the backend has not been told
        bool reading = false;
        bool readAgain = false; // what is being read may have looked before something came
        bool ended = false;     // nothing is to be read behind `ready`
        std::string error;      // nothing can be read behind `ready`
        std::optional<KeyBytes> keyAskedFor;
    };

    template <typename Task>
    void post(Task task);
    void opened(DemuxedMedia media);
    void changed(SourceId id, const SampleStream::Change& change);
    void place(Source& source, double seconds);
    void move(Source& source, double seconds);
    void serve(Source& source);
    void read(Source& source, std::size_t count);
    void take(SourceId id, unsigned int round, SampleStream::Batch batch);
    void take(Source& source, SampleStream::Batch batch);
    std::size_t deliverable(const Source& source, std::size_t most) const;
    bool lacksKey(const Sample& sample) const;
    static bool changesCodec(const Source& source, const Sample& sample);
    void hold(Source& source);
    void meetProtection();
    void deliverStart(Source& source);
    void deliver(Source& source, std::size_t count);
    void deliverEnd(Source& source);
    void writeEnd(Source& source);
    Source* find(SourceId id);

    const std::shared_ptr<EventLoop> m_loop;
    const std::shared_ptr<const ClearKey> m_keys;
    const std::uint64_t m_keySession;
    const std::function<SourceId()> m_nextId;
    double m_start;    // of what is opened
    double m_duration; // seconds; 0: as the streams tell
    Client* m_client;  // null once stopped
    std::function<DemuxedMedia(const std::atomic<bool>&)> m_open;
    const std::shared_ptr<std::atomic<bool>> m_cancelled;
    EventLoop m_readLoop;
    std::vector<std::unique_ptr<Source>> m_sources;
    unsigned int m_rounds = 0;
    bool m_hasMetProtection = false;
};

} // namespace host

#endif
