#ifndef HOST_FEEDING_H
#define HOST_FEEDING_H

#include "mse_feeder.h"
#include "request_ledger.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace host {

class Calls;
class Playback;
class ProgressWatch;

/// Playback of samples: what passes between the feeder and the backend.
class Feeding final : public MseFeeder::Client {
public:
    struct Options {
        bool asksMainSystem = true;       ///< the sinks ask for their decoder with the first sample
        Clock::duration tick{};           ///< how often balance() is called
        std::function<SourceId()> nextId; ///< for the sources that are opened
    };

    Feeding(Calls& calls, Playback& playback, ProgressWatch& watch, RequestLedger& requests,
            MediaSource source, Options options);

    void open() { m_feeder->open(); }
    void attach(SourceId id, std::shared_ptr<SampleStream> stream);
    void detach(SourceId id);
    void reattach(StreamInfo::Kind kind);
    void setDuration(double seconds);

    void request(MseFeeder::Request request) { m_feeder->request(std::move(request)); }
    /// Playback begins there, seconds. False when it cannot any more: it is to be sought.
    bool begin(double seconds);
    void seek(double seconds);
    void resume() { m_feeder->resume(); }
    void stop();
    bool waitsForKey() const { return m_feeder->waitsForKey(); }
    bool hasEnded() const { return m_feeder->hasEnded(); }

    /// Up to when what the backend has is outdated, since the last seek; seconds.
    std::optional<double> outdatedUntil() const { return m_outdatedUntil; }
    void forgetOutdated() { m_outdatedUntil.reset(); }

    /// Holds playback while the data comes too slowly, so that none of it is lost to the clock.
    void balance();
    /// Attaches anew what has played up to another codec; `finished`: all has been played that was
    /// fed. Answers where playback is to go on, seconds, when it is to be sought for that.
    std::optional<double> changeCodecs(bool finished);

private:
    void feederOpened() override;
    void feederFailed(const std::string& reason) override;
    void keyNeeded(SourceId source, const KeyBytes& id, double time) override;
    void protectionMet() override;
    void writeData(MseFeeder::Request answered, unsigned int samples, unsigned int bytes,
                   UVABackend::WriteDataStatus status) override;
    void outdated(double until) override;

    bool isOpen() const;
    void attachToBackend(SourceId id);
    void removeFromBackend(SourceId id);
    void revokeRequests();
    void renew(SourceId id);
    double ahead(SourceId id) const;
    void watchMovement();
    bool standsStill() const;
    bool runsDry(const MseFeeder::SourceInfo& info) const;
    bool isFilled(const MseFeeder::SourceInfo& info) const;
    void watchSource(const MseFeeder::SourceInfo& info);

    Calls& m_calls;
    Playback& m_playback;
    ProgressWatch& m_watch;
    RequestLedger& m_requests;
    const Options m_options;
    const std::shared_ptr<const ClearKey> m_keys;
    const std::uint64_t m_keySession;
    const double m_tooLittle; // seconds ahead, when playback is held
    const double m_enough;    // ... and goes on
    const std::shared_ptr<MseFeeder> m_feeder;
    std::map<SourceId, double> m_starved; // how much they had then, seconds
    double m_position = 0;                // when playback was looked at last
    Clock::time_point m_movedAt;          // ... and when it was elsewhere
    std::optional<double> m_outdatedUntil;
};

} // namespace host

#endif
