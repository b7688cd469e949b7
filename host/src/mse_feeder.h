#ifndef HOST_MSE_FEEDER_H
#define HOST_MSE_FEEDER_H

#include "host/event_loop.h"
#include "host/media_source.h"
#include "uva/uva_backend.h"
#include "uva/uva_event.h"

#include <atomic>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace host {

/// Answers a backend's requests for samples. Bound to the element's loop; the streams are read on a
/// thread of their own, so that a slow file or network holds nothing up.
class MseFeeder final : public std::enable_shared_from_this<MseFeeder> {
public:
    /// Called on the loop.
    class Client {
    public:
        virtual ~Client();
        /// The streams are there: sources can be described.
        virtual void feederOpened() = 0;
        virtual void feederFailed(const std::string& reason) = 0;
        /// Samples are held back until this key is there and resume() was called.
        virtual void keyNeeded(const KeyBytes& id) = 0;
        virtual void writeData(std::unique_ptr<NeedMSEDataEvent> event, unsigned int samples,
                               unsigned int bytes, UVABackend::WriteDataStatus status) = 0;
    };

    struct SourceInfo {
        unsigned int id = 0;
        StreamInfo::Kind kind = StreamInfo::Kind::Video;
        std::optional<Clock::time_point> waitsSince; ///< that long a request has been open
        bool ended = false;                          ///< the backend has been told of the end
    };

    /// The client outlives stop().
    MseFeeder(std::shared_ptr<EventLoop> loop, MediaSource source, Client& client);
    ~MseFeeder();
    MseFeeder(const MseFeeder&) = delete;
    MseFeeder& operator=(const MseFeeder&) = delete;

    void open();
    std::vector<SourceInfo> sources() const;
    /// For attachSource(), which takes it.
    std::unique_ptr<UVABackend::SourceDescription> describe(unsigned int id) const;

    /// Answered as soon as samples have been read.
    void request(std::unique_ptr<NeedMSEDataEvent> event);
    /// Drops what was requested; later requests are answered from this time on, seconds.
    void seek(double seconds);
    /// The same for one source, which was attached anew.
    void restart(unsigned int id, double seconds);
    /// Whether a request stays open because the key is missing.
    bool waitsForKey() const;
    /// A key has come, or a stream has been filled.
    void resume();
    /// Nothing is delivered any more. Waits for the reading thread, two seconds at most.
    void stop();

private:
    struct Reader;
    struct Source {
        SourceInfo info;
        StreamInfo stream;
        std::unique_ptr<NeedMSEDataEvent> request; // to be answered; null: none
        std::deque<std::unique_ptr<Sample>> ready; // read and not delivered
        unsigned int seeks = 0;                    // what was read before the last one is dropped
        double start = 0;                          // where its samples begin, seconds
        bool startDue = true;                      // ... which the backend has not been told
        bool reading = false;
        bool ended = false; // nothing is to be read behind `ready`
        std::string error;  // nothing can be read behind `ready`
        std::optional<KeyBytes> keyAskedFor;
    };

    template <typename Task>
    void post(Task task);
    void opened(std::string error, std::vector<StreamInfo> streams);
    void move(Source& source, double seconds);
    void serve(Source& source);
    void read(Source& source, std::size_t count);
    void take(std::size_t index, unsigned int seeks, SampleStream::Batch batch);
    std::size_t deliverable(const Source& source, std::size_t most) const;
    void askForKey(Source& source);
    void deliverStart(Source& source);
    void deliver(Source& source, std::size_t count);
    void deliverEnd(Source& source);
    Source* find(unsigned int id);

    const std::shared_ptr<EventLoop> m_loop;
    const std::shared_ptr<const ClearKey> m_keys;
    Client* m_client; // null once stopped
    const std::shared_ptr<Reader> m_reader;
    EventLoop m_readLoop;
    std::vector<Source> m_sources;
};

} // namespace host

#endif
